#include "app/zema/migration/interface_migration.h"

#include <algorithm>
#include <boost/algorithm/string/join.hpp>
#include <set>
#include <utility>

#include "app/zema/migration/knl_validation.h"
#include "app/zema/migration/migration_command.h"
#include "app/zema/migration/migration_record.h"
#include "app/zema/proxy/error_sink.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/proxy/lum_reply.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kOk = "ok";

const char* Word(bool value) { return value ? "true" : "false"; }

bool IsVnic(const QubMgmtIfToLogicSwitchMsg& entry) { return entry.device().find(':') != std::string::npos; }

std::vector<std::string> VtepsOf(const KnlMigration& migration) {
  std::vector<std::string> vteps;
  for (const auto* entry : migration.to_logical_switch) {
    if (entry->is_vtep() && !IsPnicsAlone(*entry) && !IsVnic(*entry)) vteps.push_back(entry->device());
  }
  return vteps;
}

bool Holds(const std::vector<HostKnl>& knls, const QubMgmtIfToLogicSwitchMsg& entry) {
  return std::any_of(knls.begin(), knls.end(), [&](const HostKnl& knl) {
    return knl.device == entry.device() && knl.vif == entry.vif_id();
  });
}

std::string ZoneOf(const QubMgmtIfToLogicSwitchMsg& entry, const HostSwitchMsg& host_switch) {
  if (entry.has_transport_zone_id()) return entry.transport_zone_id();
  return host_switch.transport_zone_id().empty() ? std::string() : host_switch.transport_zone_id(0);
}

void RemoveVtepsFailedToMigrate(const std::vector<std::string>& failed, HostSwitchMsg* host_switch) {
  if (failed.empty()) return;
  ZLOG_ERROR("42017", "[%s] failed to migrate VTEPs %s", "MigrateToLogicalSwitch",
             boost::join(failed, ",").c_str());
  auto& vteps = *host_switch->mutable_vteps();
  const auto end = std::remove_if(vteps.begin(), vteps.end(), [&](const VtepMsg& vtep) {
    return std::find(failed.begin(), failed.end(), vtep.device_name()) != failed.end();
  });
  const int removed = static_cast<int>(vteps.end() - end);
  vteps.erase(end, vteps.end());
  ZLOG_INFO("[%s] removed [%d] VTEPs that were not migrated\n", __func__, removed);
}

}  // namespace

InterfaceMigration::InterfaceMigration(LumCommands& lum, ErrorSink& errors, MigrationRecord& record,
                                       InterfaceMigrationSettings settings)
    : lum_(lum), errors_(errors), record_(record), settings_(std::move(settings)) {}

bool InterfaceMigration::ValidateHostConfigMsgForMigration(bool reset) {
  if (!reset) return true;
  ZLOG_INFO("[%s] zemcli -c del zem run on host. Validating the host state for del zem.\n", __func__);
  std::string reply;
  if (lum_.InvokeCommand("validateHostForDelZem()", kOk, &reply) != LumCommands::kSucceeded) {
    const std::string text = "ValidateHostForDelZem() failed: [" + reply + "]";
    ZLOG_ERROR("42018", "[%s] %s\n", __func__, text.c_str());
    errors_.Add(ErrorSink::kGeneral, text);
    return false;
  }
  ZLOG_INFO("%s ValidateHostForDelZem() completed successfully\n", __func__);
  return true;
}

bool InterfaceMigration::PrepareAndMigrate(Config* config, KnlMigrationMap* map, bool* migrate_nvs_knls,
                                           bool reset) {
  const bool has_migration = config->has_qub_if_migration();
  ZLOG_INFO("Processing qub_if_migration migrateNvsKnls = %s, HostConfigMsg hasMigrationSpec = %s",
            Word(*migrate_nvs_knls), Word(has_migration));
  if (config->has_phase() && config->phase() == HostConfigMsg::PHASE2_COMBINED &&
      !ValidateKnls(lum_, settings_.knl_types, config, errors_)) {
    return false;
  }
  if (has_migration) {
    const bool moves_in = config->qub_if_migration().to_lswitches_size() != 0;
    if (moves_in && !*migrate_nvs_knls) map->clear();
    *migrate_nvs_knls = *migrate_nvs_knls && moves_in;
    const bool moves_out = config->qub_if_migration().to_vsw_or_psw_size() != 0;
    ZLOG_INFO("[%s] migrateToPLN = %s", __func__, Word(moves_out));
    if (moves_out && !MigrateToPLN(*config, *map)) return false;
  }
  return !reset || MigrateResourcesForDelZem();
}

bool InterfaceMigration::MigrateResourcesForDelZem() {
  ZLOG_INFO(
      "[%s] zemcli -c del zem run on host. Migrating any resources necessary before removing host "
      "switches.\n",
      __func__);
  settings_.set_del_zem_running(true);
  settings_.flush_desired_config();
  ZLOG_INFO("%s FlushDesiredConfig() completed successfully for del zem\n", __func__);
  std::string reply;
  if (lum_.InvokeCommand("migrateResourcesForDelZem()", kOk, &reply) == LumCommands::kSucceeded) {
    ZLOG_INFO("%s MigrateResourcesForDelZem() completed successfully\n", __func__);
    return true;
  }
  settings_.set_del_zem_running(false);
  return Refuse("42018", "MigrateResourcesForDelZem() failed: [" + reply + "]");
}

bool InterfaceMigration::MigrateToPLN(const Config& config, const KnlMigrationMap& map) {
  for (const auto& [id, migration] : map) {
    if (migration.to_pln.empty()) continue;
    const auto& switches = config.host_switches();
    const auto found = std::find_if(switches.begin(), switches.end(),
                                    [&id = id](const HostSwitch& candidate) { return candidate.id() == id; });
    if (!MigrateOut(found == switches.end() ? nullptr : &*found, id, migration)) return false;
  }
  for (const std::string& vif : settings_.left_before) LeavePorts(vif, "");
  return true;
}

bool InterfaceMigration::MigrateOut(const HostSwitch* host_switch, const std::string& id,
                                    const KnlMigration& migration) {
  std::string error;
  std::string reply;
  const auto parts = BuildMigrateToPln(host_switch, migration, &error);
  if (!parts) return Refuse("42018", "MigrateOutofLS(" + id + ") failed: [" + error + "]");
  ZLOG_INFO("[%s] QubMgmtIfToPlnMsg host_switch_id=[%s] pnicsToSetInDvs=[%s] knls=[%s] uplinks=[%s]\n",
            "MigrateToPLN", id.c_str(), parts->pnics_to_set.c_str(), parts->entries.c_str(),
            parts->options.c_str());
  int result = LumCommands::kFailed;
  std::vector<std::string> left;
  // The VIF of a kernel interface is known from the host's list, that of a vNIC from the host's requests
  // during the move.
  std::vector<std::string> leaving;
  for (const auto* entry : migration.to_pln) {
    if (!entry->previous_vif_id().empty()) leaving.push_back(entry->previous_vif_id());
  }
  if (!leaving.empty()) settings_.leaving(leaving);
  {
    MigrationRecord::Scope running(record_, MigrationRecord::Kind::kToPln);
    result =
        lum_.InvokeCommand(parts->Command(id, running.op_id(), settings_.knl_ping_try_times), kOk, &reply);
    left = running.TakeLeft();
  }
  if (result != LumCommands::kSucceeded) {
    LeaveWhatMoved(leaving, left);
    return Refuse("42018", "MigrateOutofLS(" + id + ") failed: [" + reply + "]");
  }
  ZLOG_INFO("%s knls out of dvs [%s] completed successfully\n", "MigrateToPLN", id.c_str());
  left.insert(left.end(), leaving.begin(), leaving.end());
  for (const std::string& vif : left) LeavePorts(vif, "");
  return true;
}

// A move that failed or was not answered may have been carried out in part, and the next try no longer learns
// of these VIFs.
void InterfaceMigration::LeaveWhatMoved(const std::vector<std::string>& of_interfaces,
                                        const std::vector<std::string>& of_vnics) {
  if (of_interfaces.empty() && of_vnics.empty()) return;
  const auto knls = AskForKnls();
  for (const std::string& vif : of_interfaces) {
    const bool gone =
        knls && std::none_of(knls->begin(), knls->end(), [&](const HostKnl& knl) { return knl.vif == vif; });
    if (gone) LeavePorts(vif, "");
  }
  for (const std::string& vif : of_vnics) {
    if (IsOfNoVm(vif, "")) LeavePorts(vif, "");
  }
}

void InterfaceMigration::LeavePorts(const std::string& vif, const std::string& kept) {
  if (vif.empty()) return;
  const Outcome left = settings_.leave_ports(vif, kept);
  if (left) return;
  ZLOG_ERROR("42018", "[%s] VIF [%s] stays on a port that it has left: %s", __func__, vif.c_str(),
             left.error().c_str());
}

bool InterfaceMigration::CreatePorts(const HostSwitch& host_switch, const KnlMigration& migration,
                                     std::vector<ToLogicalSwitch*>* made) {
  int created = 0;
  for (ToLogicalSwitch* entry : migration.to_logical_switch) {
    if (entry->is_vtep() || IsPnicsAlone(*entry)) continue;
    made->push_back(entry);
    if (const Outcome port = settings_.create_port(*entry, ZoneOf(*entry, host_switch)); !port) {
      const std::string text =
          "MigrateToLS(" + host_switch.id() + ") failed to create port: [" + port.error() + "]";
      ZLOG_ERROR("42010", "[%s] %s, cmd=[%s]\n", "MigrateToLogicalSwitch", text.c_str(),
                 entry->ShortDebugString().c_str());
      errors_.Add(ErrorSink::kGeneral, text);
      return false;
    }
    ZLOG_INFO("[%s] created dvport [%s] on DVS [%s] attached to vif [%s]", "MigrateToLogicalSwitch",
              entry->logical_port_id().c_str(), host_switch.id().c_str(), entry->vif_id().c_str());
    ++created;
  }
  if (created > 0) {
    ZLOG_INFO("%s %d ports created in dvs [%s]\n", "MigrateToLogicalSwitch", created,
              host_switch.id().c_str());
  } else {
    ZLOG_INFO("%s No port to create in dvs [%s]\n", "MigrateToLogicalSwitch", host_switch.id().c_str());
  }
  return true;
}

bool InterfaceMigration::MigrateToLogicalSwitch(HostSwitch* host_switch, std::string_view kind,
                                                const KnlMigration& migration,
                                                const std::vector<std::string>& pairs,
                                                std::vector<std::string>* migrated_vteps) {
  const std::string& id = host_switch->id();
  ZLOG_DEBUG("[%s] into [%s], a %s", __func__, id.c_str(), std::string(kind).c_str());
  const std::vector<std::string> vteps = VtepsOf(migration);
  std::string error;
  const auto parts = BuildMigrateToLs(migration, pairs, &error);
  if (!parts) return TakeFailure(error, vteps, host_switch);
  std::vector<ToLogicalSwitch*> made;
  if (!CreatePorts(*host_switch, migration, &made)) {
    RemoveVtepsFailedToMigrate(vteps, host_switch);
    TakeBackPorts(*host_switch, made);
    return false;
  }
  std::string reply;
  int result = LumCommands::kFailed;
  {
    const MigrationRecord::Scope running(record_, MigrationRecord::Kind::kToLogicalSwitch);
    // Data follows the "ok", so no fixed reply is expected here.
    result =
        lum_.InvokeCommand(parts->Command(id, running.op_id(), settings_.knl_ping_try_times), "", &reply);
  }
  if (result != LumCommands::kSucceeded || !reply.starts_with(kOk)) {
    TakeFailure(reply, vteps, host_switch);
    TakeBackPorts(*host_switch, made);
    return false;
  }
  TakeMigrated(reply, id, migration);
  *migrated_vteps = vteps;
  return true;
}

// An interface keeps its port when the host turns out to have it there, or does not report where it is:
// without its VIF the interface would lose its network.
void InterfaceMigration::TakeBackPorts(const HostSwitch& host_switch,
                                       const std::vector<ToLogicalSwitch*>& made) {
  if (made.empty()) return;
  const auto knls = AskForKnls();
  for (const ToLogicalSwitch* entry : made) {
    const bool elsewhere =
        IsVnic(*entry) ? IsOfNoVm(entry->vif_id(), entry->logical_port_id()) : knls && !Holds(*knls, *entry);
    const char* const port = entry->logical_port_id().c_str();
    if (!elsewhere) {
      ZLOG_INFO("[%s] port [%s] keeps its VIF, [%s] may be there", __func__, port, entry->device().c_str());
      continue;
    }
    if (const Outcome left = settings_.leave_port(*entry, ZoneOf(*entry, host_switch))) {
      ZLOG_INFO("[%s] port [%s] has no VIF any more, [%s] did not move", __func__, port,
                entry->device().c_str());
    } else {
      ZLOG_ERROR("42017", "[%s] port [%s] keeps VIF [%s]: %s", __func__, port, entry->vif_id().c_str(),
                 left.error().c_str());
    }
  }
}

// After a move without answer, the first question fails and the second one starts a new script.  The script
// that was carrying out the move has been killed by then, so the answer of the new one remains valid.
std::optional<std::vector<HostKnl>> InterfaceMigration::AskForKnls() {
  std::string problem;
  auto knls = ReadKnls(lum_, settings_.knl_types, &problem);
  if (!knls) knls = ReadKnls(lum_, settings_.knl_types, &problem);
  if (!knls) ZLOG_WARN("[%s] %s", __func__, problem.c_str());
  return knls;
}

bool InterfaceMigration::IsOfNoVm(const std::string& vif, const std::string& port) {
  std::string path;
  const int result = lum_.InvokeRPC(LumOperation::kVmPathOfVif, "vifId=" + vif + "|portId=" + port, &path);
  return result != LumCommands::kRpcSucceeded && result != LumCommands::kRpcSocketFailure;
}

void InterfaceMigration::TakeMigrated(const std::string& reply, const std::string& id,
                                      const KnlMigration& migration) {
  ZLOG_INFO("%s knls/vm into dvs [%s] completed. Reply:%s\n", "MigrateToLogicalSwitch", id.c_str(),
            reply.c_str());
  const size_t colon = reply.find(':');
  const std::string path = colon == std::string::npos ? std::string() : reply.substr(colon + 1);
  for (ToLogicalSwitch* entry : migration.to_logical_switch) {
    if (entry->is_vtep() || IsPnicsAlone(*entry)) continue;
    if (entry->previous_vif_id() != entry->vif_id()) LeavePorts(entry->previous_vif_id(), "");
    entry->set_previous_logical_port_id(entry->logical_port_id());
    entry->set_previous_vif_id(entry->vif_id());
    LeavePorts(entry->vif_id(), entry->logical_port_id());
    if (IsVnic(*entry) && !path.empty()) {
      ZLOG_INFO("%s GCF Path is:%s\n", "MigrateToLogicalSwitch", path.c_str());
      entry->set_gcf_path(path);
    }
  }
}

// A failure that names no endpoint applies to all of them.
bool InterfaceMigration::TakeFailure(const std::string& reply, const std::vector<std::string>& vteps,
                                     HostSwitch* host_switch) {
  const MigrateToLsFailure failure = ParseMigrateToLsFailure(reply);
  RemoveVtepsFailedToMigrate(failure.vteps.empty() ? vteps : failure.vteps, host_switch);
  return Refuse("42017", "MigrateToLS(" + host_switch->id() + ") failed: [" + failure.error + "]");
}

bool InterfaceMigration::Refuse(const char* tag, const std::string& text) {
  ZLOG_ERROR(tag, "[%s] %s\n", __func__, text.c_str());
  errors_.Add(ErrorSink::kGeneral, text);
  return false;
}

MigratedPnics MigratedPnicsOf(const KnlMigrationMap& map) {
  MigratedPnics pnics;
  for (const auto& [id, migration] : map) pnics[id];
  return pnics;
}

}  // namespace zem::zema
