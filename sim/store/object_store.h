#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/rpc/status.h"
#include "proto/covedb/covedb.pb.h"
#include "sim/store/object_registry.h"

namespace zem::sim {

/// An object's bytes; shared with those who are told of them.
using ObjectValue = std::shared_ptr<const std::string>;

/// What became of one object.
struct ObjectChange {
  uint16_t vdb_id = 0;
  ObjectType type{};
  std::string key;
  ObjectValue before;  // null: there was none
  ObjectValue after;   // null: it is gone
};

/// The objects of all virtual databases.  Of the vdbs, 1 is there from the start.
///
/// Threads: none of its own; the owner guards it.
class ObjectStore {
 public:
  static constexpr uint16_t kDefaultVDb = 1;
  using Objects = std::map<std::string, ObjectValue>;

  explicit ObjectStore(const ObjectRegistry& registry);

  /// Makes all changes of the batch, in order, or none.  `changes` gets what happened to each object.
  /// INVALID_ARGUMENT: a change without content, type, object or key; UNKNOWN_TYPE: a type that the schema
  /// lacks; BAD_VALUE: an object that does not parse; NOT_FOUND: a vdb or copy source that is not there.
  rpc::Status Apply(const std::vector<orlane::zem::covedb::ModifyRequestMsg>& batch,
                    std::vector<ObjectChange>* changes);

  /// Null when the vdb is unknown.
  const std::map<ObjectType, Objects>* Find(uint16_t vdb_id) const;
  /// Empty when there are none.
  const Objects& All(uint16_t vdb_id, ObjectType type) const;

  bool HasVDb(uint16_t vdb_id) const { return vdbs_.count(vdb_id) != 0; }
  /// ALREADY_EXISTS, or INVALID_ARGUMENT for an empty name.
  rpc::Status CreateVDb(const std::string& name, uint16_t* vdb_id);
  /// NOT_FOUND; INVALID_ARGUMENT for the default one.
  rpc::Status DeleteVDb(const std::string& name, uint16_t* vdb_id);
  std::optional<uint16_t> VDbId(const std::string& name) const;
  std::vector<std::pair<uint16_t, std::string>> VDbs() const;

  /// Types with higher numbers are unknown to this store; the schema text ends with this one.
  void SetLastType(ObjectType type) { last_type_ = type; }
  ObjectType last_type() const { return last_type_; }

 private:
  struct VDb {
    std::string name;
    std::map<ObjectType, Objects> types;
  };

  rpc::Status ApplyOne(const orlane::zem::covedb::ModifyMsg& change, std::vector<ObjectChange>& changes);
  rpc::Status CheckType(bool has_type, ObjectType type) const;
  template <class VDbIds>
  rpc::Status Targets(const VDbIds& ids, std::vector<uint16_t>* targets) const;
  rpc::Status Copy(const orlane::zem::covedb::CopyMsg& copy, const std::vector<uint16_t>& targets,
                   std::vector<ObjectChange>& changes);
  rpc::Status Merge(ObjectType type, const ObjectValue& before, const std::string& patch,
                    ObjectValue* after) const;
  void Set(uint16_t vdb_id, ObjectType type, const std::string& key, ObjectValue value,
           std::vector<ObjectChange>& changes);
  void Undo(const std::vector<ObjectChange>& changes);

  const ObjectRegistry& registry_;
  std::map<uint16_t, VDb> vdbs_;
  uint16_t last_vdb_id_ = kDefaultVDb;
  ObjectType last_type_;
};

/// The schema as the store tells it: "enum ObjectType { ... }", up to `last_type`.
std::string SchemaText(ObjectType last_type);

}  // namespace zem::sim
