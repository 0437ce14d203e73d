#include "app/zema/hostswitch/router_ports.h"

#include <boost/algorithm/string/join.hpp>
#include <chrono>
#include <cstdio>
#include <utility>

#include "app/zema/hostlib/switch_library.h"
#include "app/zema/proxy/lum_reply.h"
#include "framework/log/log.h"
#include "framework/process/shutdown_pipe.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kPort = "vdrPort";
constexpr int kUnloadPollSeconds = 2;

std::string MacText(const RouterLibrary::Mac& mac) {
  char text[18];
  std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  return text;
}

std::optional<RouterLibrary::Mac> MacOf(const std::string& text) {
  const auto number = ParseMac(text);
  if (!number) return std::nullopt;
  RouterLibrary::Mac mac;
  for (size_t i = 0; i < mac.size(); ++i) {
    mac[i] = static_cast<uint8_t>(*number >> (8 * (mac.size() - 1 - i)));
  }
  return mac;
}

}  // namespace

RouterPorts::RouterPorts(RouterLibrary& library, Pause pause)
    : library_(library), pause_(pause ? std::move(pause) : [](Duration duration) {
        return !Tarvik::WaitForShutdown(duration);
      }) {}

bool RouterPorts::GetDvsIdsChangingVdrMac(const Macs& macs, std::vector<std::string>* changing,
                                          std::string* error) {
  for (const auto& [dvs, text] : macs) {
    const auto wanted = MacOf(text);
    if (!wanted) continue;
    RouterLibrary::Mac current;
    const uint32_t result = library_.GetVMAC(dvs, &current);
    if (result == kSwitchNotFound) {
      ZLOG_INFO("[%s] VDRKNL_GetVMAC(%s) returned NOT_FOUND.", __func__, dvs.c_str());
      continue;
    }
    if (result != 0) {
      *error += "VDRKNL_GetVMAC(" + dvs + ") failed with code: " + std::to_string(result);
      return false;
    }
    if (current == *wanted) continue;
    ZLOG_INFO("Dvs [%s] VDR MAC will change from [%s] to [%s].", dvs.c_str(), MacText(current).c_str(),
              MacText(*wanted).c_str());
    changing->push_back(dvs);
  }
  return true;
}

uint32_t RouterPorts::UnPlumb(const std::string& dvs) {
  // Without the library no router was ever connected.
  const uint32_t result = library_.loaded() ? library_.UnPlumbVdrConnection(dvs) : kSwitchNotFound;
  if (result != kSwitchNotFound) return result;
  ZLOG_DEBUG("[%s] No router is on dvs [%s]", __func__, dvs.c_str());
  return 0;
}

bool RouterPorts::DisconnectVdrPorts(const Macs& before, const Macs& after,
                                     std::vector<std::string>* failed) {
  for (const auto& [dvs, mac] : before) {
    if (after.contains(dvs)) continue;
    if (UnPlumb(dvs) == 0) {
      ZLOG_INFO("[%s] Disconnected vdr port of dvs [%s] successfully", __func__, dvs.c_str());
      continue;
    }
    ZLOG_ERROR("42022", "[%s] Failed to disconnect vdr port of dvs [%s]", __func__, dvs.c_str());
    failed->push_back(dvs);
    return false;
  }
  return true;
}

void RouterPorts::ConnectVdrPorts(const std::vector<DvsConfigInfo>& switches, const Macs& macs, bool revert,
                                  std::vector<std::string>* errors) {
  if (revert) {
    ZLOG_INFO("Do not Plumb Vdr Connection as this is revert case");
    return;
  }
  for (const DvsConfigInfo& dvs : switches) {
    const auto found = macs.find(dvs.id);
    const auto mac = found == macs.end() ? std::nullopt : MacOf(found->second);
    if (!mac) continue;
    const std::string text = MacText(*mac);
    const std::string uplinks = boost::join(dvs.uplinks, ",");
    if (library_.PlumbVdrConnection(dvs.id, kPort, *mac, dvs.team_type, dvs.uplinks) == 0) {
      ZLOG_INFO("[%s] vdrPort of dvs [%s] connected with vmac [%s], teaming %u, uplinks [%s].", __func__,
                dvs.id.c_str(), text.c_str(), dvs.team_type, uplinks.c_str());
      continue;
    }
    ZLOG_ERROR("42021",
               "[%s] Failed to connect vdrPort of dvs [%s] with vmac [%s], teaming %u, uplinks [%s].",
               __func__, dvs.id.c_str(), text.c_str(), dvs.team_type, uplinks.c_str());
    errors->push_back("Failed to create connection for vdrPort of dvs [" + dvs.id + "]");
  }
}

void RouterPorts::VdrPortReconnection(const std::vector<DvsConfigInfo>& switches, const Macs& macs) {
  ZLOG_INFO("[%s] reconnection for vdr port in all DVSes.", __func__);
  for (const DvsConfigInfo& dvs : switches) {
    RouterLibrary::Mac mac;
    uint32_t result = 0;
    const auto stored = macs.find(dvs.id);
    if (const auto known = stored == macs.end() ? std::nullopt : MacOf(stored->second)) {
      mac = *known;
    } else {
      result = library_.GetVMAC(dvs.id, &mac);
      if (result == kSwitchNotFound) continue;
    }
    if (result == 0) result = library_.PlumbVdrConnection(dvs.id, kPort, mac, dvs.team_type, dvs.uplinks);
    if (result != 0) {
      ZLOG_ERROR("42021", "[%s] Failed to create connection for vdrPort of dvs [%s].", __func__,
                 dvs.id.c_str());
    }
  }
}

Outcome RouterPorts::WaitTillVdrUnloadDone(int seconds) {
  std::string error;
  for (int waited = 0;; waited += kUnloadPollSeconds) {
    bool busy = false;
    const uint32_t result = library_.GetUnloadStatus(&busy);
    if (result != 0) {
      error = "WaitTillVdrUnloadDone failed with code " + std::to_string(result);
      break;
    }
    if (!busy) return Outcome::Done();
    if (waited >= seconds) {
      error = "WaitTillVdrUnloadDone timed out after " + std::to_string(seconds) + " seconds";
      break;
    }
    ZLOG_INFO("WaitTillVdrUnloadDone sleeps for 2s before next retry; retries left %d",
              (seconds - waited) / kUnloadPollSeconds);
    if (!pause_(std::chrono::seconds(kUnloadPollSeconds))) {
      error = "WaitTillVdrUnloadDone ended because the agent stops";
      break;
    }
  }
  ZLOG_WARN("%s", error.c_str());
  return Outcome::Failed(std::move(error));
}

}  // namespace zem::zema
