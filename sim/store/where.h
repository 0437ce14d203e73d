#pragma once

#include <string>

#include "platform/rpc/status.h"
#include "proto/covedb/covedb.pb.h"

namespace zem::sim {

class ObjectRegistry;

/// INVALID_ARGUMENT when the statement names no type, or a condition that objects of the type cannot meet: an
/// unknown field, no operator, a value that is no number for a number, a type that is not registered.
rpc::Status CheckStatement(const ObjectRegistry& registry,
                           const orlane::zem::covedb::StatementMsg& statement);

/// Whether a statement that was checked selects the object.
bool Matches(const ObjectRegistry& registry, const orlane::zem::covedb::StatementMsg& statement,
             const std::string& object);

}  // namespace zem::sim
