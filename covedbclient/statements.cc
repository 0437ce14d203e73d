#include "covedbclient/statements.h"

#include <algorithm>
#include <array>

namespace zem::covedb {

using orlane::zem::covedb::MonitorStatementMsg;
using orlane::zem::covedb::ObjectType;

namespace {

// Types whose watchers say explicitly that they want whole objects.
constexpr std::array kWithSelect = {
    ObjectType::GLOBAL_CONFIG,
    ObjectType::EVENT_CONFIG,
    ObjectType::DATA_COLLECTION_CONFIG,
    ObjectType::GLOBAL_COLLECTION_CONFIGURATION,
    ObjectType::USER_DEFINED_FEATURE_STACK_COLLECTION_CONFIGURATION,
    ObjectType::IP_REPUTATION_RECORD_EVENT,
};

}  // namespace

MonitorStatementMsg MonitorStatementFor(ObjectType type) {
  MonitorStatementMsg monitor;
  auto* const statement = monitor.mutable_statement();
  statement->set_object_type(type);
  if (std::find(kWithSelect.begin(), kWithSelect.end(), type) != kWithSelect.end()) statement->set_select(1);
  return monitor;
}

std::list<MonitorStatementMsg> MonitorStatementsFor(std::initializer_list<ObjectType> types) {
  std::list<MonitorStatementMsg> statements;
  for (const ObjectType type : types) statements.push_back(MonitorStatementFor(type));
  return statements;
}

}  // namespace zem::covedb
