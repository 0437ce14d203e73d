#pragma once

#include <initializer_list>
#include <list>

#include "proto/covedb/covedb.pb.h"

namespace zem::covedb {

/// The statement with which every module watches all objects of `type`.  Modules that share a type share the
/// store's monitor only if their statements are the same bytes, so all of them take theirs from here.
orlane::zem::covedb::MonitorStatementMsg MonitorStatementFor(orlane::zem::covedb::ObjectType type);

/// One for each type, in the order of the list.
std::list<orlane::zem::covedb::MonitorStatementMsg> MonitorStatementsFor(
    std::initializer_list<orlane::zem::covedb::ObjectType> types);

}  // namespace zem::covedb
