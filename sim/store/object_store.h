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

/// An object's bytes, shared with the streams to which they are sent.
using ObjectValue = std::shared_ptr<const std::string>;

/// The change of one object.
struct ObjectChange {
  uint16_t vdb_id = 0;
  ObjectType type{};
  std::string key;
  ObjectValue before;  // null: the object did not exist
  ObjectValue after;   // null: the object was deleted
};

/// The objects of all virtual databases.  The vdb with id 1 always exists.
///
/// Threads: not thread-safe; the owner's lock guards it.
class ObjectStore {
 public:
  static constexpr uint16_t kDefaultVDb = 1;
  using Objects = std::map<std::string, ObjectValue>;

  explicit ObjectStore(const ObjectRegistry& registry);

  /// Makes all changes of the batch, in order, or none.  `changes` receives the change of each object.
  /// INVALID_ARGUMENT: a change without content, type, object or key; UNKNOWN_TYPE: a type that is not in the
  /// schema; BAD_VALUE: an object that cannot be parsed; NOT_FOUND: an unknown vdb or copy source.
  rpc::Status Apply(const std::vector<orlane::zem::covedb::ModifyRequestMsg>& batch,
                    std::vector<ObjectChange>* changes);

  /// Returns null when the vdb is unknown.
  const std::map<ObjectType, Objects>* Find(uint16_t vdb_id) const;
  /// Returns an empty list when there are no objects.
  const Objects& All(uint16_t vdb_id, ObjectType type) const;

  bool HasVDb(uint16_t vdb_id) const { return vdbs_.count(vdb_id) != 0; }
  /// Fails with ALREADY_EXISTS, or with INVALID_ARGUMENT for an empty name.
  rpc::Status CreateVDb(const std::string& name, uint16_t* vdb_id);
  /// Fails with NOT_FOUND, or with INVALID_ARGUMENT for the default vdb.
  rpc::Status DeleteVDb(const std::string& name, uint16_t* vdb_id);
  std::optional<uint16_t> VDbId(const std::string& name) const;
  std::vector<std::pair<uint16_t, std::string>> VDbs() const;

  /// Types with higher numbers are unknown to this store; the schema text ends with this type.
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

/// The schema text that the store returns: "enum ObjectType { ... }", up to `last_type`.
std::string SchemaText(ObjectType last_type);

}  // namespace zem::sim
