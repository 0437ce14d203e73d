#include "app/zema/migration/knl_validation.h"

#include <algorithm>

#include "app/zema/proxy/error_sink.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/proxy/lum_reply.h"
#include "app/zema/proxy/switch_record.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr std::string_view kOk = "ok";
constexpr size_t kKnlMembers = 7;
constexpr std::string_view kNkln = "NVS";

void Refuse(ErrorSink& errors, const std::string& text) {
  ZLOG_ERROR("42017", "%s", text.c_str());
  errors.Add(ErrorSink::kGeneral, text);
}

const HostKnl* Find(const std::vector<HostKnl>& knls, const std::string& device) {
  const auto found =
      std::find_if(knls.begin(), knls.end(), [&](const HostKnl& knl) { return knl.device == device; });
  return found == knls.end() ? nullptr : &*found;
}

template <typename Entries>
void ClearPrevious(Entries* entries) {
  for (auto& entry : *entries) {
    entry.clear_previous_vif_id();
    entry.clear_previous_logical_port_id();
  }
}

template <typename Entries>
void SetPrevious(const std::vector<HostKnl>& knls, Entries* entries) {
  for (auto& entry : *entries) {
    const HostKnl* knl = Find(knls, entry.device());
    if (knl == nullptr) continue;
    if (!knl->vif.empty()) entry.set_previous_vif_id(knl->vif);
    if (!knl->logical_port.empty()) entry.set_previous_logical_port_id(knl->logical_port);
  }
}

bool ValidateInterface(const HostKnl& knl, const QubMgmtIfToLogicSwitchMsg& entry, ErrorSink& errors) {
  bool good = true;
  if (!knl.logical_port.empty()) {
    const bool same_port = knl.logical_port == entry.logical_port_id();
    const bool same_vif = knl.vif == entry.vif_id();
    if (same_port && !same_vif) {
      Refuse(errors, "The knl " + knl.device + " is already connected to logical port " + knl.logical_port +
                         "; changing its VIF-id from " + knl.vif + " to " + entry.vif_id() +
                         " is not supported");
      good = false;
    } else if (!same_port && same_vif) {
      Refuse(errors, "Migrating knl " + knl.device + " from logical port " + knl.logical_port + " to port " +
                         entry.logical_port_id() + " does not support keeping the same VIF-id " + knl.vif);
      good = false;
    }
  }
  if (!knl.host_switch.empty() && knl.host_switch != entry.host_switch_id()) {
    Refuse(errors, "Migrating knl " + knl.device + " from host-switch " + knl.host_switch + " to " +
                       entry.host_switch_id() + " is not support.");
    good = false;
  }
  return good;
}

const UplinkProfileMsg& TeamingNamed(const HostSwitchMsg& host_switch, const std::string& name) {
  for (const NamedUplinkProfileMsg& named : host_switch.profiles().named_uplink_profile()) {
    if (!name.empty() && named.name() == name) return named.uplink_profile();
  }
  return host_switch.profiles().uplink_profile();
}

// The physical NICs of a link aggregation group have uplinks whose names begin with the group's name.
bool Serves(const PhysicalNicMsg& pnic, const UplinkMsg& uplink) {
  return uplink.type() == UplinkMsg::LAG ? pnic.uplink_name().starts_with(uplink.name())
                                         : pnic.uplink_name() == uplink.name();
}

bool HasPnic(const HostSwitchMsg& host_switch, const UplinkProfileMsg& teaming) {
  if (teaming.active_uplink().empty() && teaming.standby_uplink().empty()) return !host_switch.pnic().empty();
  return std::any_of(host_switch.pnic().begin(), host_switch.pnic().end(), [&](const PhysicalNicMsg& pnic) {
    const auto serves = [&](const UplinkMsg& uplink) { return Serves(pnic, uplink); };
    return std::any_of(teaming.active_uplink().begin(), teaming.active_uplink().end(), serves) ||
           std::any_of(teaming.standby_uplink().begin(), teaming.standby_uplink().end(), serves);
  });
}

bool ValidateTeamingOf(const HostKnl& knl, const HostConfigMsg& config, ErrorSink& errors) {
  const QubMgmtIfMigrationMsg& migration = config.qub_if_migration();
  for (const QubMgmtIfToPlnMsg& entry : migration.to_vsw_or_psw()) {
    if (entry.device() != knl.device) continue;
    ZLOG_INFO("Skip checking uplink teaming for %s because it will be migrated to [%s]", knl.device.c_str(),
              entry.port_group().c_str());
    return true;
  }
  std::string id = knl.host_switch;
  std::string teaming = knl.teaming;
  for (const QubMgmtIfToLogicSwitchMsg& entry : migration.to_lswitches()) {
    if (entry.device() != knl.device) continue;
    id = entry.host_switch_id();
    teaming = entry.uplink_teaming_name();
  }
  const auto& switches = config.host_switches();
  const auto host_switch = std::find_if(switches.begin(), switches.end(),
                                        [&](const HostSwitchMsg& candidate) { return candidate.id() == id; });
  if (host_switch == switches.end()) {
    ZLOG_INFO(
        "Skip checking uplink teaming for %s because it is not (won't be) in any NKLN; it shares the MAC of "
        "%s",
        knl.device.c_str(), knl.mac_of.c_str());
    return true;
  }
  if (SwitchKind(*host_switch) != kNkln) {
    ZLOG_INFO(
        "Skip checking uplink teaming for %s because it is in KLN [%s] that is not a NKLN; it shares the MAC "
        "of %s",
        knl.device.c_str(), id.c_str(), knl.mac_of.c_str());
    return true;
  }
  if (HasPnic(*host_switch, TeamingNamed(*host_switch, teaming))) return true;
  const std::string text =
      "Uplink teaming of host-switch " + host_switch->name() + " for knl " + knl.device + ": no pnic";
  ZLOG_ERROR("MPAERR_ERR_QUB_HOSTCFG_PNICS_VALIDATE", "%s", text.c_str());
  errors.Add(ErrorSink::kGeneral, text);
  return false;
}

bool HasType(const std::string& types, const std::string& type) {
  const auto words = SplitTokens(types, ',');
  return std::find(words.begin(), words.end(), type) != words.end();
}

}  // namespace

std::optional<std::vector<HostKnl>> ParseKnls(std::string_view reply) {
  const std::vector<std::string_view> tokens = SplitTokens(reply, '|');
  if (tokens[0] != kOk) return std::nullopt;
  std::vector<HostKnl> knls;
  for (size_t i = 1; i < tokens.size(); ++i) {
    if (tokens[i].empty() && tokens.size() == 2) break;
    const std::vector<std::string_view> members = SplitTokens(tokens[i], '~');
    if (members.size() != kKnlMembers || members[0].empty()) return std::nullopt;
    knls.push_back({std::string(members[0]), std::string(members[1]), std::string(members[2]),
                    std::string(members[3]), std::string(members[4]), std::string(members[5]),
                    std::string(members[6])});
  }
  return knls;
}

std::optional<std::vector<HostKnl>> ReadKnls(LumCommands& lum, const std::string& types,
                                             std::string* problem) {
  const std::string name = "getKnlsInLogicalSwitchesAndKnlsOfGivenTypes";
  std::string reply;
  const int result = lum.InvokeCommand(name + "(" + types + ")", "", &reply);
  ZLOG_INFO("getKnlsInLogicalSwitchesAndKnlsOfGivenTypes reply: [%s]", reply.c_str());
  if (result != LumCommands::kSucceeded || (reply != kOk && !reply.starts_with("ok|"))) {
    *problem = name + " reply " + reply;
    return std::nullopt;
  }
  auto knls = ParseKnls(reply);
  if (!knls) *problem = "Invalid " + name + " reply: [" + reply + "]";
  return knls;
}

bool ValidateInterfaces(const std::vector<HostKnl>& knls, HostConfigMsg* config, ErrorSink& errors) {
  if (!config->has_qub_if_migration()) return true;
  QubMgmtIfMigrationMsg& migration = *config->mutable_qub_if_migration();
  SetPrevious(knls, migration.mutable_to_lswitches());
  SetPrevious(knls, migration.mutable_to_vsw_or_psw());
  bool good = true;
  for (const QubMgmtIfToLogicSwitchMsg& entry : migration.to_lswitches()) {
    const HostKnl* knl = Find(knls, entry.device());
    if (knl != nullptr && !ValidateInterface(*knl, entry, errors)) good = false;
  }
  return good;
}

bool ValidateTeaming(const std::vector<HostKnl>& knls, const std::string& types, const HostConfigMsg& config,
                     ErrorSink& errors) {
  const auto& switches = config.host_switches();
  if (switches.empty()) {
    ZLOG_INFO("No host-switch to check uplink teaming for knls");
    return true;
  }
  if (std::none_of(switches.begin(), switches.end(),
                   [](const HostSwitchMsg& host_switch) { return SwitchKind(host_switch) == kNkln; })) {
    ZLOG_INFO("No need of checking uplink teaming for knls in NKLN");
    return true;
  }
  ZLOG_INFO("Found NKLN in the TN config");
  bool good = true;
  for (const HostKnl& knl : knls) {
    if (HasType(types, knl.type) && !ValidateTeamingOf(knl, config, errors)) good = false;
  }
  return good;
}

bool ValidateKnls(LumCommands& lum, const std::string& types, HostConfigMsg* config, ErrorSink& errors) {
  if (config->has_qub_if_migration()) {
    QubMgmtIfMigrationMsg& migration = *config->mutable_qub_if_migration();
    ClearPrevious(migration.mutable_to_lswitches());
    ClearPrevious(migration.mutable_to_vsw_or_psw());
    for (QubMgmtIfToLogicSwitchMsg& entry : *migration.mutable_to_lswitches()) entry.clear_gcf_path();
  }
  std::string problem;
  const auto knls = ReadKnls(lum, types, &problem);
  if (!knls) {
    Refuse(errors, problem);
    return false;
  }
  return ValidateInterfaces(*knls, config, errors) && ValidateTeaming(*knls, types, *config, errors);
}

}  // namespace zem::zema
