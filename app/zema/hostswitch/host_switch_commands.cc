#include "app/zema/hostswitch/host_switch_commands.h"

#include <algorithm>
#include <boost/algorithm/string/join.hpp>
#include <optional>

#include "app/zema/proxy/error_sink.h"
#include "app/zema/proxy/host_switch_lists.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/proxy/lum_reply.h"
#include "app/zema/proxy/switch_record.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "proto/switching/host_switch.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kOk = "ok";
constexpr const char* kPnicUsed = "zem.PnicUsedByMgmtInterfaceException-ApplyDvs(";

constexpr uint32_t kVtepRemoved = 5;

// The host's names for the forwarding modes.
constexpr const char* kEns = "true";
constexpr const char* kEnsInterrupt = "intr";
constexpr const char* kPktHandle = "false";

}  // namespace

bool HostSwitchCommands::ApplyHostSwitches(const std::vector<std::string>& records) {
  if (records.empty()) {
    ZLOG_INFO("[%s] dvsParams passed in is empty...NOP", __func__);
    return true;
  }
  std::string error;
  const std::optional<bool> security_only = HasSecurityOnlySwitch(lum_, &error);
  if (!security_only || *security_only) {
    errors_.Add(ErrorSink::kGeneral, security_only ? "Found security-only non-CKLN on the host." : error);
    return false;
  }
  return ApplyHostSwitch(records);
}

bool HostSwitchCommands::ApplyHostSwitch(const std::vector<std::string>& records) {
  const std::string params = boost::join(records, ";");
  ZLOG_INFO("Starting ApplyHostSwitch dvsParam len = %lu", static_cast<unsigned long>(params.size()));
  std::string reply;
  if (lum_.InvokeCommand(ApplyDvsesCommand(records), kOk, &reply) == LumCommands::kSucceeded) return true;
  ZLOG_ERROR("42008", "[%s] ApplyDvses(%s) failed: %s\n", __func__, params.c_str(), reply.c_str());
  const bool pnic_used = reply.find(kPnicUsed) != std::string::npos;
  errors_.Add(pnic_used ? ErrorSink::kPnicUsedByManagement : ErrorSink::kGeneral,
              "host switch apply operation failed: [" + reply + "]");
  return false;
}

std::string HostSwitchCommands::ModeOf(const HostSwitchMsg& host_switch,
                                       std::string_view standard_realization) {
  if (!host_switch.has_switch_mode()) return kPktHandle;
  switch (host_switch.switch_mode()) {
    case HostSwitchMsg::ENS:
      return kEns;
    case HostSwitchMsg::ENS_INTERRUPT:
      return kEnsInterrupt;
    case HostSwitchMsg::PKT_HANDLE:
      return kPktHandle;
    case HostSwitchMsg::STANDARD:
      break;
  }
  std::string mode = kPktHandle;
  if (standard_realization == "pktHandle") {
    ZLOG_INFO("Overriding HSmode for dvs [%s]cas per zema config file to pktHandle",
              host_switch.id().c_str());
  } else if (standard_realization == "ens-intr") {
    mode = kEnsInterrupt;
    ZLOG_INFO("Overriding HSmode for dvs [%s] as per zema config file to ens-intr", host_switch.id().c_str());
  } else {
    std::string reply;
    if (lum_.InvokeCommand("IsQUBiVersionGreaterThanEqual80()", kOk, &reply) == LumCommands::kSucceeded)
      mode = kEnsInterrupt;
  }
  if (mode == kPktHandle && host_switch.snic_offload()) {
    mode = kEnsInterrupt;
    ZLOG_INFO("Overriding HSmode for dvs [%s] from STANDARD to ENS_INTERRUPT as dvs has snic offload enabled",
              host_switch.id().c_str());
  }
  return mode;
}

bool HostSwitchCommands::ApplyCpuConfig(const HostSwitchMsg& host_switch) {
  std::vector<std::string> pairs;
  for (const CpuConfigMsg& cpu : host_switch.cpu_config()) {
    pairs.push_back(std::to_string(cpu.first()) + "~" + std::to_string(cpu.second()));
  }
  const std::string arguments = host_switch.id() + "|" + boost::join(pairs, ",");
  std::string reply;
  if (lum_.InvokeCommand("applyHostSwitchCpuConfig(" + arguments + ")", kOk, &reply) ==
      LumCommands::kSucceeded)
    return true;
  ZLOG_ERROR("42008", "[%s] ApplyHostSwitchCpuConfig(%s) failed: %s\n", __func__, arguments.c_str(),
             reply.c_str());
  errors_.Add(ErrorSink::kGeneral,
              "ApplyHostSwitchCpuConfig to [" + host_switch.name() + "] failed : " + reply + ". ");
  return false;
}

bool HostSwitchCommands::ApplyHostSwitchMode(const HostSwitchMsg& host_switch,
                                             std::string_view standard_realization) {
  const std::string mode = ModeOf(host_switch, standard_realization);
  bool good = true;
  if (mode != kEns) {
    ZLOG_INFO("Switch mode is [%s], skipping setting cpu configuration for the switch.", mode.c_str());
  } else if (!host_switch.cpu_config().empty()) {
    good = ApplyCpuConfig(host_switch);
  }
  const std::string arguments = host_switch.id() + "|" + mode;
  std::string reply;
  if (lum_.InvokeCommand("applyHostSwitchMode(" + arguments + ")", kOk, &reply) != LumCommands::kSucceeded) {
    ZLOG_TO(kLog, kLogError, "[%s] ApplyHostSwitchMode(%s) failed: %s\n", __func__, arguments.c_str(),
            reply.c_str());
    errors_.Add(ErrorSink::kGeneral,
                "ApplyHostSwitchMode to [" + host_switch.name() + "] failed : " + reply + ". ");
    return false;
  }
  ZLOG_INFO("[%s] ApplyHostSwitchMode [%s] completed\n", __func__, arguments.c_str());
  return good;
}

bool HostSwitchCommands::ApplyGuestLane(const HostSwitchMsg& host_switch) {
  std::string reply;
  GuestLane lane = GuestLane::kUnreadable;
  std::string name = "GetGuestLaneKnl";
  if (lum_.InvokeCommand(name + "(" + host_switch.id() + ")", "", &reply) == LumCommands::kSucceeded)
    lane = ParseGuestLane(reply);
  // The message also contains endpoints that the host has just removed.
  const bool wanted = std::any_of(host_switch.vteps().begin(), host_switch.vteps().end(),
                                  [](const VtepMsg& vtep) { return vtep.state() != kVtepRemoved; });
  if (lane == (wanted ? GuestLane::kFound : GuestLane::kNotFound)) return true;
  if (lane != GuestLane::kUnreadable) {
    name = wanted ? "CreateGuestLaneInterface" : "DeleteGuestLaneInterface";
    if (lum_.InvokeCommand(name + "(" + host_switch.id() + ")", kOk, &reply) == LumCommands::kSucceeded)
      return true;
  }
  ZLOG_ERROR("42071", "[%s] %s(%s) failed: %s", __func__, name.c_str(), host_switch.id().c_str(),
             reply.c_str());
  errors_.Add(ErrorSink::kGeneral, name + " to [" + host_switch.name() + "] failed : " + reply + ". ");
  return false;
}

bool HostSwitchCommands::AddGuestLaneInterface(const std::string& device, const std::string& address,
                                               const std::string& net_mask) {
  const std::string command =
      "AddGuestLaneInterface(deviceName=" + device + "|ipAddress=" + address + "|netMask=" + net_mask + ")";
  std::string reply;
  if (lum_.InvokeCommand(command, kOk, &reply) == LumCommands::kSucceeded) return true;
  ZLOG_ERROR("42071", "[%s] Create GuestLane interface failed with: %s", __func__, reply.c_str());
  errors_.Add(ErrorSink::kGeneral, "Failed to create GuestLane interface. " + reply);
  return false;
}

bool HostSwitchCommands::UpdateTnIdToCorvd(const std::string& id) {
  ZLOG_INFO("Updating Transport Node id to Corvd...");
  std::string reply;
  if (lum_.InvokeRPC(LumOperation::kSetTransportNodeId, id, &reply) == LumCommands::kRpcSucceeded) {
    Host().SetToldToHost();
    return true;
  }
  ZLOG_ERROR("44086", "[%s] Failed to set tnID into corvd.", __func__);
  errors_.Add(ErrorSink::kTransportNodeIdNotSet, "Failed to update transport node id to corvd.");
  return false;
}

}  // namespace zem::zema
