#include "app/zema/endpoint/vtep_application.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "app/zema/endpoint/endpoint_address.h"
#include "app/zema/endpoint/vtep_command.h"
#include "app/zema/proxy/error_sink.h"
#include "app/zema/proxy/lum_commands.h"
#include "framework/log/log.h"
#include "proto/switching/host_switch.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr uint32_t kStateApplied = 4;
constexpr uint32_t kStateRemoved = 5;
constexpr const char* kOk = "ok";
constexpr const char* kSkipped = "skipped";
constexpr const char* kRemoved = "removed";
constexpr const char* kDhcp = "dhcp";
constexpr const char* kLinkLayer = "linklayer";

// In the order of the reply: the name of each setting in the log and for the manager, and its field in the
// message.
struct SettingRow {
  const char* log_name;
  const char* text_name;
  const std::string& (HostSwitchMsg::*get)() const;
  std::string* (HostSwitchMsg::*mutable_value)();
};
constexpr SettingRow kSettingRows[] = {
    {"default gateway", "DefaultGateway", &HostSwitchMsg::default_gateway,
     &HostSwitchMsg::mutable_default_gateway},
    {"subnet mask", "SubnetMask", &HostSwitchMsg::subnet_mask, &HostSwitchMsg::mutable_subnet_mask},
    {"ipv6 default gateway", "Ipv6DefaultGateway", &HostSwitchMsg::ipv6_default_gateway,
     &HostSwitchMsg::mutable_ipv6_default_gateway},
    {"ipv6 prefix length", "Ipv6PrefixLength", &HostSwitchMsg::ipv6_prefix_length,
     &HostSwitchMsg::mutable_ipv6_prefix_length},
};
static_assert(std::size(kSettingRows) == VtepReply::kSettings);

std::string Named(const VtepEntryReply& entry) {
  return "VTEP [" + entry.device + "," + entry.ipv4 + "," + entry.ipv6 + "]";
}

std::string NotApplied(const char* setting, const std::string& value, const std::string& status) {
  return std::string(setting) + " [" + value + "] failed to be applied: " + status;
}

}  // namespace

VtepApplication::VtepApplication(LumCommands& lum, ErrorSink& errors, EndpointIdOf endpoint_id_of,
                                 VtepOutcome& outcome)
    : lum_(lum), errors_(errors), endpoint_id_of_(std::move(endpoint_id_of)), outcome_(outcome) {}

bool VtepApplication::ApplyVTEP(HostSwitchMsg* host_switch, const std::vector<std::string>& migrated,
                                bool upgrade) {
  std::vector<Fate> fates(static_cast<size_t>(host_switch->vteps_size()), Fate::kUnknown);
  std::string reply;
  if (!Send(*host_switch, migrated, upgrade, &reply) || !TakeReply(reply, host_switch, &fates)) {
    RemoveNonExistingVteps(fates, host_switch);
    return false;
  }
  SortByEndpointId(host_switch);
  return true;
}

bool VtepApplication::Send(const HostSwitchMsg& host_switch, const std::vector<std::string>& migrated,
                           bool upgrade, std::string* reply) {
  if (NeedsIpv6Endpoints(host_switch) &&
      lum_.InvokeCommand("IsQUBiVersionGreaterThanEqual801()", kOk, reply) != LumCommands::kSucceeded) {
    ZLOG_ERROR("42078", "[%s] QUBi version is less than 8u1 and does not support IPv6 VTEPs. Failing...",
               __func__);
    return Refuse(
        "QUBi version is less than '8.0 Update 1' and does not support IPv6 assignment type for host switch "
        "'" +
        host_switch.name() + "'. Please upgrade QUBi or provide IPv4 assignment type.");
  }
  std::string error;
  const auto command = BuildApplyVtep(host_switch, migrated, upgrade, &error);
  if (!command) {
    ZLOG_ERROR("42013", "[%s] %s", __func__, error.c_str());
    return Refuse("VTEP apply operation failed: [" + error + "]");
  }
  const int result = lum_.InvokeCommand(*command, "", reply);
  ZLOG_INFO("[%s] apply VTEP Operation on DVS(%s) reply: [%s]\n", __func__, host_switch.id().c_str(),
            reply->c_str());
  return result == LumCommands::kSucceeded || Refuse("VTEP apply operation failed: [" + *reply + "]");
}

bool VtepApplication::TakeReply(const std::string& reply, HostSwitchMsg* host_switch,
                                std::vector<Fate>* fates) {
  const VtepReply parsed = ParseVtepReply(reply, fates->size());
  switch (parsed.form) {
    case VtepReply::Form::kFailed:
      return Refuse("VTEP apply operation failed: [" + reply + "]");
    case VtepReply::Form::kUnexpected:
      return Refuse("VTEP apply operation failed, unexpected data: [" + reply + "]");
    case VtepReply::Form::kGood:
      break;
  }
  bool good = TakeSettings(parsed, host_switch);
  for (size_t i = 0; i < parsed.entries.size(); ++i) {
    const VtepEntryReply& entry = parsed.entries[i];
    if (!entry.valid) RefuseEntry(reply);
    const bool there =
        entry.valid && TakeEntry(entry, *host_switch, host_switch->mutable_vteps(static_cast<int>(i)));
    (*fates)[i] = there ? Fate::kThere : Fate::kFailed;
    good = good && there;
  }
  for (const VtepEntryReply& entry : parsed.deletions) {
    if (!entry.valid) RefuseEntry(reply);
    good = entry.valid && TakeDeletion(entry, host_switch) && good;
  }
  return good;
}

bool VtepApplication::TakeSettings(const VtepReply& reply, HostSwitchMsg* host_switch) {
  const auto& settings = reply.settings;
  ZLOG_INFO(
      "[%s] got result defaultGateway [%s], subnetMask [%s], ipv6DefaultGateway [%s] and ipv6PrefixLength "
      "[%s] for DVS(%s)\n",
      __func__, settings[VtepReply::kDefaultGateway].value.c_str(),
      settings[VtepReply::kSubnetMask].value.c_str(), settings[VtepReply::kIpv6DefaultGateway].value.c_str(),
      settings[VtepReply::kIpv6PrefixLength].value.c_str(), host_switch->id().c_str());
  bool good = true;
  for (size_t i = 0; i < settings.size(); ++i) {
    const SettingRow& row = kSettingRows[i];
    const auto& [value, status] = settings[i];
    if (status == kOk) {
      if (!value.empty()) *(host_switch->*row.mutable_value)() = value;
      continue;
    }
    ZLOG_ERROR("42013", "[%s] failed to update %s from [%s] to [%s]:\n %s", __func__, row.log_name,
               (host_switch->*row.get)().c_str(), value.c_str(), status.c_str());
    good = Refuse(NotApplied(row.text_name, value, status));
  }
  return good;
}

bool VtepApplication::TakeEntry(const VtepEntryReply& entry, const HostSwitchMsg& host_switch,
                                VtepMsg* vtep) {
  if (entry.status == kOk) {
    ZLOG_INFO("[%s] VTEP [%s:%s:%s] apply: ok\n", __func__, entry.device.c_str(), entry.ipv4.c_str(),
              entry.ipv6.c_str());
    vtep->set_state(kStateApplied);
    if (vtep->device_name().empty()) vtep->set_device_name(entry.device);
    if (entry.mac) vtep->mutable_mac()->set_value(*entry.mac);
    TakeAddresses(entry, host_switch, vtep);
    return true;
  }
  if (entry.status == kSkipped) {
    ZLOG_INFO("[%s] VTEP [%s:%s:%s] is skipped.\n", __func__, entry.device.c_str(), entry.ipv4.c_str(),
              entry.ipv6.c_str());
    if (!entry.ipv4.empty()) vtep->set_ipv4_address(entry.ipv4);
    if (!entry.ipv6.empty()) vtep->set_ipv6_address(entry.ipv6);
    return true;
  }
  ZLOG_ERROR("42013", "[%s] VTEP [%s:%s:%s] failed to apply: %s\n", __func__, entry.device.c_str(),
             entry.ipv4.c_str(), entry.ipv6.c_str(), entry.status.c_str());
  ++outcome_.failed_endpoints;
  return Refuse(Named(entry) + " failed to be applied: " + entry.status);
}

void VtepApplication::TakeAddresses(const VtepEntryReply& entry, const HostSwitchMsg& host_switch,
                                    VtepMsg* vtep) {
  if (!host_switch.static_address() && !IsAssignedIpv4(entry.ipv4)) {
    vtep->clear_ipv4_address();
    outcome_.dhcp_devices.push_back(vtep->device_name());
  } else if (!entry.ipv4.empty()) {
    vtep->set_ipv4_address(entry.ipv4);
  }
  if (IsAssignedIpv6(entry.ipv6)) {
    vtep->set_ipv6_address(entry.ipv6);
  } else if (host_switch.ipv6_dhcp() || host_switch.ipv6_auto_conf()) {
    vtep->clear_ipv6_address();
    outcome_.ipv6_kinds[vtep->device_name()] = host_switch.ipv6_dhcp() ? kDhcp : kLinkLayer;
  }
}

bool VtepApplication::TakeDeletion(const VtepEntryReply& entry, HostSwitchMsg* host_switch) {
  ZLOG_INFO("[%s] VTEP [%s:%s:%s] deletion: %s\n", __func__, entry.device.c_str(), entry.ipv4.c_str(),
            entry.ipv6.c_str(), entry.status.c_str());
  if (entry.status != kRemoved) return Refuse(Named(entry) + " failed to be deleted: " + entry.status);
  VtepMsg* const vtep = host_switch->add_vteps();
  vtep->set_state(kStateRemoved);
  vtep->set_device_name(entry.device);
  vtep->set_ipv4_address(entry.ipv4);
  vtep->set_ipv6_address(entry.ipv6);
  return true;
}

void VtepApplication::RefuseEntry(const std::string& reply) {
  ZLOG_ERROR("42013", "[%s] VTEP operation invalid reply: [%s]\n", __func__, reply.c_str());
  errors_.Add(ErrorSink::kGeneral, "VTEP operation invalid reply: [" + reply + "]");
}

bool VtepApplication::Refuse(const std::string& text) {
  errors_.Add(ErrorSink::kGeneral, text);
  return false;
}

void VtepApplication::RemoveNonExistingVteps(const std::vector<Fate>& fates, HostSwitchMsg* host_switch) {
  google::protobuf::RepeatedPtrField<VtepMsg> kept;
  for (int i = 0; i < host_switch->vteps_size(); ++i) {
    VtepMsg* const vtep = host_switch->mutable_vteps(i);
    const size_t index = static_cast<size_t>(i);
    // The endpoints that the host removed come after those that were requested.
    const Fate fate = index < fates.size() ? fates[index] : Fate::kThere;
    const bool there = vtep->state() == kStateApplied || vtep->state() == kStateRemoved;
    if (fate == Fate::kThere || (fate == Fate::kUnknown && there)) *kept.Add() = std::move(*vtep);
  }
  host_switch->mutable_vteps()->Swap(&kept);
}

void VtepApplication::SortByEndpointId(HostSwitchMsg* host_switch) {
  ZLOG_INFO("[%s] Number of VTEPs before correcting the order are: [%d]\n", __func__,
            host_switch->vteps_size());
  // Endpoints without an id, such as removed ones, come last and keep their order.
  constexpr uint64_t kLast = std::numeric_limits<uint64_t>::max();
  std::vector<std::pair<uint64_t, VtepMsg>> sorted;
  for (VtepMsg& vtep : *host_switch->mutable_vteps()) {
    uint64_t order = kLast;
    if (vtep.state() != kStateRemoved) {
      const std::string& device = vtep.device_name();
      if (const auto id = endpoint_id_of_(host_switch->name(), device)) {
        ZLOG_INFO("[%s] endpointid fetched for device name [%s] and switch name [%s] is [%d]\n", __func__,
                  device.c_str(), host_switch->name().c_str(), static_cast<int>(*id));
        outcome_.endpoint_ids.insert(*id);
        order = *id;
      }
    }
    sorted.emplace_back(order, std::move(vtep));
  }
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  host_switch->clear_vteps();
  for (auto& [order, vtep] : sorted) *host_switch->add_vteps() = std::move(vtep);
  ZLOG_INFO("[%s] Number of VTEPs after correcting the order are: [%d]\n", __func__,
            host_switch->vteps_size());
}

}  // namespace zem::zema
