#include "covedbclient/monitor_tables.h"

#include <algorithm>
#include <boost/container/small_vector.hpp>
#include <cassert>
#include <utility>

#include "covedbclient/client_log.h"
#include "platform/core/uuid.h"

namespace zem::covedb {
namespace {

using orlane::zem::covedb::WhereMsg;
using WhereClauses = google::protobuf::RepeatedPtrField<WhereMsg>;

const std::string& TypeName(ObjectType type) { return orlane::zem::covedb::ObjectType_Name(type); }

WhereClauses::iterator FindClause(WhereClauses& clauses, const WhereMsg& wanted) {
  const std::string bytes = wanted.SerializeAsString();
  return std::find_if(clauses.begin(), clauses.end(),
                      [&bytes](const WhereMsg& clause) { return clause.SerializeAsString() == bytes; });
}

bool ApplyUpdate(const MonitorStatementUpdateMsg& update, StatementMsg& statement) {
  WhereClauses& clauses = *statement.mutable_where();
  for (const WhereMsg& clause : update.where_to_remove()) {
    const auto found = FindClause(clauses, clause);
    if (found == clauses.end()) {
      COVEDB_REFUSE("NDB113", "Where clause (%s) for the object type: %s not found",
                    clause.ShortDebugString().c_str(), TypeName(update.object_type()).c_str());
      return false;
    }
    clauses.SwapElements(static_cast<int>(found - clauses.begin()), clauses.size() - 1);
    clauses.RemoveLast();
  }
  for (const WhereMsg& clause : update.where_to_add()) {
    if (FindClause(clauses, clause) != clauses.end()) {
      COVEDB_REFUSE("NDB114", "Existing where clause (%s) for the object type: %s already exists",
                    clause.ShortDebugString().c_str(), TypeName(update.object_type()).c_str());
      return false;
    }
    *clauses.Add() = clause;
  }
  return true;
}

}  // namespace

MonitorTables::VDb* MonitorTables::Find(uint16_t vdb_id) {
  const auto found = vdbs_.find(vdb_id);
  return found == vdbs_.end() ? nullptr : &found->second;
}

bool MonitorTables::CheckSession(uint16_t vdb_id) const {
  if (vdb_id == kDefaultVDb || HasSession(vdb_id)) return true;
  COVEDB_REFUSE("NDB103", "Unable to find monitor session for vdb_id %u", static_cast<unsigned>(vdb_id));
  return false;
}

MonitorTables::SessionId MonitorTables::RenewSession(uint16_t vdb_id) {
  return sessions_[vdb_id] = RandomUuid();
}

bool MonitorTables::AddSession(uint16_t vdb_id) {
  if (HasSession(vdb_id)) {
    COVEDB_REFUSE("NDB104", "An existing monitor session for vdb_id %u already exists",
                  static_cast<unsigned>(vdb_id));
    return false;
  }
  RenewSession(vdb_id);
  return true;
}

bool MonitorTables::RemoveSession(uint16_t vdb_id) {
  if (sessions_.erase(vdb_id) == 0) {
    COVEDB_REFUSE("NDB103", "Unable to find monitor session for vdb_id %u", static_cast<unsigned>(vdb_id));
    return false;
  }
  vdbs_.erase(vdb_id);
  return true;
}

bool MonitorTables::Register(uint32_t module_id, UpdateCallback update, BarrierCallback barrier,
                             uint16_t vdb_id) {
  if (!CheckSession(vdb_id)) return false;
  VDb& vdb = vdbs_[vdb_id];
  if (vdb.update_callbacks.count(module_id) != 0) {
    ZLOG_DEBUG("CoveDbClient already has a callback registered formodule_id: %u", module_id);
    return false;
  }
  vdb.update_callbacks[module_id] = std::make_shared<const UpdateCallback>(std::move(update));
  if (vdb.barrier_callbacks.count(module_id) != 0) {
    ZLOG_DEBUG("CoveDbClient already has a barrier callbackregistered for module_id: %u", module_id);
    return false;
  }
  vdb.barrier_callbacks[module_id] = std::make_shared<const BarrierCallback>(std::move(barrier));
  return true;
}

bool MonitorTables::Configure(const std::list<MonitorStatementMsg>& to_add,
                              const std::list<MonitorStatementMsg>& to_remove, uint32_t module_id,
                              uint16_t vdb_id, ConfigureMonitorRequestMsg& request) {
  if (!CheckSession(vdb_id)) return false;
  for (const MonitorStatementMsg& statement : to_remove) {
    if (!Remove(statement, module_id, vdb_id, request)) return false;
  }
  for (const MonitorStatementMsg& statement : to_add) {
    if (!Add(statement, module_id, vdb_id, request)) return false;
  }
  return true;
}

bool MonitorTables::Remove(const MonitorStatementMsg& statement, uint32_t module_id, uint16_t vdb_id,
                           ConfigureMonitorRequestMsg& request) {
  if (!statement.has_statement()) {
    COVEDB_REFUSE("NDB105", "MonitorStatementMsg is missing StatementMsg");
    return false;
  }
  const ObjectType type = statement.statement().object_type();
  VDb* const vdb = Find(vdb_id);
  if (vdb == nullptr || vdb->monitors.empty()) {
    COVEDB_REFUSE("NDB106", "No existing monitor found for the given vdb_id %u",
                  static_cast<unsigned>(vdb_id));
    return false;
  }
  const auto monitor = vdb->monitors.find(type);
  if (monitor == vdb->monitors.end()) {
    COVEDB_REFUSE("NDB107", "No existing monitor found for the given object type: %s",
                  TypeName(type).c_str());
    return false;
  }
  if (monitor->second != statement.SerializeAsString()) {
    COVEDB_REFUSE("NDB108", "MonitorStatementMsg for object_type: %s does not match any existing monitor",
                  TypeName(type).c_str());
    return false;
  }
  if (vdb->module_ids.empty()) {
    COVEDB_REFUSE("NDB109", "No module ids found for the given vdb_id %u", static_cast<unsigned>(vdb_id));
    return false;
  }
  const auto modules = vdb->module_ids.find(type);
  if (modules == vdb->module_ids.end()) {
    COVEDB_REFUSE("NDB110", "No module ids associated with the given object type: %s",
                  TypeName(type).c_str());
    return false;
  }
  if (modules->second.erase(module_id) == 0) {
    COVEDB_REFUSE("NDB110", "No module id %u associated with the given object type: %s", module_id,
                  TypeName(type).c_str());
    return false;
  }
  if (!modules->second.empty()) return true;
  vdb->monitors.erase(monitor);
  vdb->module_ids.erase(modules);
  *request.add_statement_to_remove() = statement;
  return true;
}

bool MonitorTables::Add(const MonitorStatementMsg& statement, uint32_t module_id, uint16_t vdb_id,
                        ConfigureMonitorRequestMsg& request) {
  if (!statement.has_statement()) {
    COVEDB_REFUSE("NDB105", "MonitorStatementMsg is missing StatementMsg");
    return false;
  }
  const ObjectType type = statement.statement().object_type();
  VDb& vdb = vdbs_[vdb_id];
  std::string bytes = statement.SerializeAsString();
  const auto monitor = vdb.monitors.find(type);
  if (monitor == vdb.monitors.end()) {
    vdb.monitors.emplace(type, std::move(bytes));
    *request.add_statement_to_add() = statement;
  } else if (monitor->second != bytes) {
    COVEDB_REFUSE(
        "NDB111",
        "An existing monitor for the object type: %s with different MonitorStatementMsg already exists",
        TypeName(type).c_str());
    return false;
  }
  vdb.module_ids[type].insert(module_id);
  return true;
}

bool MonitorTables::Update(const std::list<MonitorStatementUpdateMsg>& updates, uint16_t vdb_id,
                           ConfigureMonitorRequestMsg& request) {
  if (!CheckSession(vdb_id)) return false;
  VDb* const vdb = Find(vdb_id);
  if (vdb == nullptr || vdb->monitors.empty()) {
    COVEDB_REFUSE("NDB106", "No existing monitor found for the given vdb_id %u",
                  static_cast<unsigned>(vdb_id));
    return false;
  }
  std::map<ObjectType, MonitorStatementMsg> changed;
  for (const MonitorStatementUpdateMsg& update : updates) {
    const ObjectType type = update.object_type();
    const auto monitor = vdb->monitors.find(type);
    if (monitor == vdb->monitors.end()) {
      COVEDB_REFUSE("NDB112", "Monitor for the object type: %s not found", TypeName(type).c_str());
      return false;
    }
    // A second update of one type goes on from where the first one ended.
    const auto [entry, first] = changed.try_emplace(type);
    if (first) {
      [[maybe_unused]] const bool parsed = entry->second.ParseFromString(monitor->second);
      assert(parsed);
    }
    if (!ApplyUpdate(update, *entry->second.mutable_statement())) return false;
    *request.add_statement_update() = update;
  }
  for (const auto& [type, statement] : changed) vdb->monitors[type] = statement.SerializeAsString();
  return true;
}

void MonitorTables::AddStatements(uint16_t vdb_id, const std::function<bool(ObjectType)>& keep,
                                  MonitorRequestMsg& request) {
  VDb* const vdb = Find(vdb_id);
  if (vdb == nullptr) return;
  for (auto monitor = vdb->monitors.begin(); monitor != vdb->monitors.end();) {
    if (!keep(monitor->first)) {
      ZLOG_DEBUG("Removing object type %s from Monitor as server schema does not support it",
                 TypeName(monitor->first).c_str());
      monitor = vdb->monitors.erase(monitor);
      continue;
    }
    [[maybe_unused]] const bool parsed = request.add_monitor_statement()->ParseFromString(monitor->second);
    assert(parsed);
    ++monitor;
  }
}

void MonitorTables::NotifyModules(const MonitorUpdateMsg& update, uint16_t vdb_id) {
  VDb* vdb = Find(vdb_id);
  if (vdb == nullptr || vdb->update_callbacks.empty()) return;
  const auto modules = vdb->module_ids.find(update.object_type());
  if (modules == vdb->module_ids.end()) return;
  // Each callback may change every table, so nothing that was looked up before one is used after it.
  const boost::container::small_vector<uint32_t, 8> ids(modules->second.begin(), modules->second.end());
  for (const uint32_t id : ids) {
    vdb = Find(vdb_id);
    if (vdb == nullptr) return;
    const auto still = vdb->module_ids.find(update.object_type());
    if (still == vdb->module_ids.end() || still->second.count(id) == 0) continue;
    const auto callback = vdb->update_callbacks.find(id);
    if (callback == vdb->update_callbacks.end() || !*callback->second) continue;
    vdb->modules_since_barrier.insert(id);
    const std::shared_ptr<const UpdateCallback> function = callback->second;
    (*function)(update);
  }
}

void MonitorTables::NotifyBarrier(uint16_t vdb_id) {
  VDb* vdb = Find(vdb_id);
  if (vdb == nullptr) return;
  const std::set<uint32_t> ids = std::exchange(vdb->modules_since_barrier, {});
  for (const uint32_t id : ids) {
    vdb = Find(vdb_id);
    if (vdb == nullptr) return;
    const auto callback = vdb->barrier_callbacks.find(id);
    if (callback == vdb->barrier_callbacks.end() || !*callback->second) continue;
    const std::shared_ptr<const BarrierCallback> function = callback->second;
    (*function)();
  }
}

}  // namespace zem::covedb
