#pragma once

#include <initializer_list>
#include <list>
#include <string>

#include "covedbclient/statements.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/scenario.pb.h"

/// Short ways to the messages of these tests.

namespace zem::covedb::test {

namespace proto = orlane::zem::covedb;
using proto::ObjectType;

inline std::string Object(const std::string& id, int64_t number = 0) {
  proto::ScenarioObjectMsg object;
  object.set_id(id);
  object.set_number(number);
  return object.SerializeAsString();
}

inline proto::ModifyMsg Put(const std::string& id, std::initializer_list<uint32_t> vdbs = {},
                            ObjectType type = ObjectType::SCENARIO_OBJECT) {
  proto::ModifyMsg change;
  change.mutable_put_msg()->set_object_type(type);
  change.mutable_put_msg()->set_object(Object(id));
  for (const uint32_t vdb : vdbs) change.mutable_put_msg()->add_vdb_id(vdb);
  return change;
}

inline proto::ModifyMsg Delete(const std::string& id) {
  proto::ModifyMsg change;
  change.mutable_delete_msg()->set_object_type(ObjectType::SCENARIO_OBJECT);
  change.mutable_delete_msg()->set_object(Object(id));
  return change;
}

inline proto::ModifyMsg CopyFrom(uint32_t source, std::initializer_list<uint32_t> targets) {
  proto::ModifyMsg change;
  change.mutable_copy_msg()->set_object_type(ObjectType::SCENARIO_OBJECT);
  if (source != 0) change.mutable_copy_msg()->set_source_vdb_id(source);
  for (const uint32_t vdb : targets) change.mutable_copy_msg()->add_vdb_id(vdb);
  return change;
}

/// One request that holds the changes.
inline std::list<proto::ModifyRequestMsg> Requests(std::initializer_list<proto::ModifyMsg> changes) {
  std::list<proto::ModifyRequestMsg> requests(1);
  for (const proto::ModifyMsg& change : changes) *requests.back().add_modify_msg() = change;
  return requests;
}

inline proto::WhereMsg Where(const std::string& path, proto::WhereMsg::Operator op,
                             const std::string& value) {
  proto::WhereMsg where;
  where.set_path(path);
  where.set_op(op);
  where.set_value(value);
  return where;
}

inline proto::MonitorStatementMsg Watch(ObjectType type,
                                        std::initializer_list<proto::WhereMsg> clauses = {}) {
  proto::MonitorStatementMsg monitor = MonitorStatementFor(type);
  for (const proto::WhereMsg& clause : clauses) *monitor.mutable_statement()->add_where() = clause;
  return monitor;
}

inline proto::MonitorStatementUpdateMsg UpdateOf(ObjectType type, std::initializer_list<proto::WhereMsg> add,
                                                 std::initializer_list<proto::WhereMsg> remove) {
  proto::MonitorStatementUpdateMsg update;
  update.set_object_type(type);
  for (const proto::WhereMsg& clause : add) *update.add_where_to_add() = clause;
  for (const proto::WhereMsg& clause : remove) *update.add_where_to_remove() = clause;
  return update;
}

}  // namespace zem::covedb::test
