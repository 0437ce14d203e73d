#include "app/zema/hostconfig/router_reconnection.h"

#include <cstdio>

#include "app/zema/hostconfig/host_config_context.h"
#include "app/zema/hostlib/config_ops_manager.h"
#include "app/zema/hostswitch/library_settings.h"
#include "app/zema/hostswitch/router_ports.h"
#include "app/zema/proxy/error_sink.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/proxy/lum_reply.h"
#include "app/zema/state/health_record.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr int kMacBytes = 6;

bool ReadInfos(HostConfigContext& context, const std::vector<HostDvs>& switches,
               std::vector<DvsConfigInfo>* infos, std::string* error) {
  return GetDvsConfigInfo(switches, ReadTeaming(context.switches), ReadLacpNames(context.switches), infos,
                          error);
}

}  // namespace

void RouterReconnection::ReadTeaming(const std::vector<HostDvs>& switches) {
  infos_.clear();
  std::string error;
  if (!ReadInfos(context_, switches, &infos_, &error)) errors_.Add(ErrorSink::kGeneral, error);
}

void RouterReconnection::ReconnectVdrPorts(const Config& config, const RouterMacs& before, bool upgrade) {
  std::string error;
  const auto switches = GetDvsUuids(context_.lum, false, DvsStatus(context_.switches), &error);
  if (switches) {
    ReadTeaming(*switches);
  } else {
    // The teaming that was read before the change is still valid for the switches that stay.
    errors_.Add(ErrorSink::kGeneral, error);
  }
  const RouterMacs after = LeavingSwitches::RouterMacsOf(config);
  const auto connect = [&](const RouterMacs& macs, bool revert) {
    std::vector<std::string> failed;
    context_.routers.ConnectVdrPorts(infos_, macs, revert, &failed);
    for (std::string& text : failed) errors_.Add(ErrorSink::kGeneral, std::move(text));
  };
  connect(before, upgrade);
  if (!upgrade) connect(after, false);
  context_.health.setDvsNameVdrMacs(RouterMacsOfHealth(config));
  if (config.phase() == Config::PHASE2_COMBINED) context_.health.resetZemaHealth();
}

void ReconnectRoutersAtStart(HostConfigContext& context, const std::vector<HostDvs>& switches) {
  std::vector<DvsConfigInfo> infos;
  std::string error;
  if (!ReadInfos(context, switches, &infos, &error)) {
    ZLOG_ERROR("42021", "[%s] %s", __func__, error.c_str());
  }
  context.routers.VdrPortReconnection(infos, RouterMacTexts(context.health.dvs_vdr_macs()));
}

HealthMacs RouterMacsOfHealth(const orlane::zem::switching::HostConfigMsg& config) {
  HealthMacs macs;
  for (const auto& host_switch : config.host_switches()) {
    auto& bytes = macs[host_switch.id()];
    const auto mac = ParseMac(host_switch.vdr_mac());
    if (!mac) continue;
    for (int i = 0; i < kMacBytes; ++i) bytes[i] = static_cast<uint8_t>(*mac >> (8 * (kMacBytes - 1 - i)));
  }
  return macs;
}

LeavingSwitches::RouterMacs RouterMacTexts(const HealthMacs& macs) {
  LeavingSwitches::RouterMacs texts;
  for (const auto& [id, mac] : macs) {
    std::string& text = texts[id];
    if (mac == HealthMacs::mapped_type{}) continue;
    char buffer[18];
    std::snprintf(buffer, sizeof(buffer), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
                  mac[4], mac[5]);
    text = buffer;
  }
  return texts;
}

}  // namespace zem::zema
