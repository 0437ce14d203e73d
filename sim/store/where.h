#pragma once

#include <string>

#include "platform/rpc/status.h"
#include "proto/covedb/covedb.pb.h"

namespace zem::sim {

class ObjectRegistry;

/// Returns INVALID_ARGUMENT when the statement names no type, or has a condition that objects of the type
/// cannot meet: an unknown field, no operator, a text where the field is a number, or a type that is not
/// registered.
rpc::Status CheckStatement(const ObjectRegistry& registry,
                           const orlane::zem::covedb::StatementMsg& statement);

/// Whether a statement that passed the check selects the object.
bool Matches(const ObjectRegistry& registry, const orlane::zem::covedb::StatementMsg& statement,
             const std::string& object);

}  // namespace zem::sim
