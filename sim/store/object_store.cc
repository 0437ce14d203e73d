#include "sim/store/object_store.h"

#include <google/protobuf/descriptor.h>

#include <algorithm>
#include <utility>

namespace zem::sim {
namespace {

namespace proto = orlane::zem::covedb;
using rpc::Status;
using rpc::StatusCode;

Status Invalid(std::string text) { return Status(StatusCode::kInvalidArgument, std::move(text)); }
Status NotFound(std::string text) { return Status(StatusCode::kNotFound, std::move(text)); }

int CountOf(const proto::ModifyMsg& change) {
  return change.has_put_msg() + change.has_delete_msg() + change.has_flush_msg() + change.has_patch_msg() +
         change.has_copy_msg();
}

}  // namespace

ObjectStore::ObjectStore(const ObjectRegistry& registry)
    : registry_(registry), last_type_(static_cast<ObjectType>(proto::ObjectType_MAX)) {
  vdbs_[kDefaultVDb].name = "default";
}

Status ObjectStore::Apply(const std::vector<proto::ModifyRequestMsg>& batch,
                          std::vector<ObjectChange>* changes) {
  for (const proto::ModifyRequestMsg& request : batch) {
    for (const proto::ModifyMsg& change : request.modify_msg()) {
      const Status status = ApplyOne(change, *changes);
      if (status.ok()) continue;
      Undo(*changes);
      changes->clear();
      return status;
    }
  }
  return Status();
}

Status ObjectStore::CheckType(bool has_type, ObjectType type) const {
  if (!has_type || type == ObjectType::OBJECT_TYPE_NONE) return Invalid("a change without object type");
  if (type > last_type_) {
    return Status(StatusCode::kUnknownType, "the schema has no type " + std::to_string(type));
  }
  return Status();
}

template <class VDbIds>
Status ObjectStore::Targets(const VDbIds& ids, std::vector<uint16_t>* targets) const {
  for (const uint32_t id : ids) {
    if (id > UINT16_MAX || !HasVDb(static_cast<uint16_t>(id)))
      return NotFound("no vdb " + std::to_string(id));
    targets->push_back(static_cast<uint16_t>(id));
  }
  if (targets->empty()) targets->push_back(kDefaultVDb);
  return Status();
}

Status ObjectStore::ApplyOne(const proto::ModifyMsg& change, std::vector<ObjectChange>& changes) {
  if (CountOf(change) != 1)
    return Invalid("a change has to hold exactly one of put, delete, flush, patch, copy");
  std::vector<uint16_t> targets;

  // First the checks that all kinds of changes share, then the key, where a change has one.
  const auto prepare = [&](const auto& message) {
    Status status = CheckType(message.has_object_type(), message.object_type());
    return status.ok() ? Targets(message.vdb_id(), &targets) : status;
  };
  std::string key;
  const auto prepare_object = [&](const auto& message) {
    Status status = prepare(message);
    if (!status.ok()) return status;
    if (!message.has_object()) return Invalid("a change without object");
    return registry_.Key(message.object_type(), message.object(), &key);
  };

  if (change.has_put_msg()) {
    const proto::PutMsg& put = change.put_msg();
    if (Status status = prepare_object(put); !status.ok()) return status;
    const auto value = std::make_shared<const std::string>(put.object());
    for (const uint16_t id : targets) Set(id, put.object_type(), key, value, changes);
  } else if (change.has_delete_msg()) {
    const proto::DeleteMsg& gone = change.delete_msg();
    if (Status status = prepare_object(gone); !status.ok()) return status;
    for (const uint16_t id : targets) Set(id, gone.object_type(), key, nullptr, changes);
  } else if (change.has_flush_msg()) {
    const proto::FlushMsg& flush = change.flush_msg();
    if (Status status = prepare(flush); !status.ok()) return status;
    for (const uint16_t id : targets) {
      const Objects all = All(id, flush.object_type());
      for (const auto& entry : all) Set(id, flush.object_type(), entry.first, nullptr, changes);
    }
  } else if (change.has_patch_msg()) {
    const proto::PatchMsg& patch = change.patch_msg();
    if (Status status = prepare_object(patch); !status.ok()) return status;
    for (const uint16_t id : targets) {
      const Objects& all = All(id, patch.object_type());
      const auto before = all.find(key);
      ObjectValue after;
      Status status =
          Merge(patch.object_type(), before == all.end() ? nullptr : before->second, patch.object(), &after);
      if (!status.ok()) return status;
      Set(id, patch.object_type(), key, std::move(after), changes);
    }
  } else {
    const proto::CopyMsg& copy = change.copy_msg();
    if (Status status = prepare(copy); !status.ok()) return status;
    return Copy(copy, targets, changes);
  }
  return Status();
}

Status ObjectStore::Merge(ObjectType type, const ObjectValue& before, const std::string& patch,
                          ObjectValue* after) const {
  const auto merged = registry_.New(type);
  if (!before || !merged) {
    *after = std::make_shared<const std::string>(patch);
    return Status();
  }
  // Concatenated encodings parse as the merge of the messages.
  if (!merged->ParsePartialFromString(*before + patch)) {
    return Status(StatusCode::kBadValue, "the patch is no " + merged->GetTypeName());
  }
  *after = std::make_shared<const std::string>(merged->SerializePartialAsString());
  return Status();
}

Status ObjectStore::Copy(const proto::CopyMsg& copy, const std::vector<uint16_t>& targets,
                         std::vector<ObjectChange>& changes) {
  const uint32_t source = copy.has_source_vdb_id() ? copy.source_vdb_id() : kDefaultVDb;
  if (source > UINT16_MAX || !HasVDb(static_cast<uint16_t>(source))) {
    return NotFound("no vdb " + std::to_string(source));
  }
  Objects objects = All(static_cast<uint16_t>(source), copy.object_type());
  if (copy.has_object()) {
    std::string key;
    if (Status status = registry_.Key(copy.object_type(), copy.object(), &key); !status.ok()) return status;
    const auto one = objects.find(key);
    if (one == objects.end()) return NotFound("no such object in vdb " + std::to_string(source));
    objects = {{one->first, one->second}};
  }
  for (const uint16_t id : targets) {
    for (const auto& [key, value] : objects) Set(id, copy.object_type(), key, value, changes);
  }
  return Status();
}

void ObjectStore::Set(uint16_t vdb_id, ObjectType type, const std::string& key, ObjectValue value,
                      std::vector<ObjectChange>& changes) {
  Objects& objects = vdbs_.at(vdb_id).types[type];
  ObjectChange change{vdb_id, type, key, nullptr, value};
  const auto found = objects.find(key);
  if (found != objects.end()) change.before = found->second;
  if (value) {
    objects[key] = std::move(value);
  } else if (found != objects.end()) {
    objects.erase(found);
  } else {
    return;  // the object did not exist, so nothing changes
  }
  changes.push_back(std::move(change));
}

void ObjectStore::Undo(const std::vector<ObjectChange>& changes) {
  for (auto change = changes.rbegin(); change != changes.rend(); ++change) {
    Objects& objects = vdbs_.at(change->vdb_id).types[change->type];
    if (change->before) {
      objects[change->key] = change->before;
    } else {
      objects.erase(change->key);
    }
  }
}

const std::map<ObjectType, ObjectStore::Objects>* ObjectStore::Find(uint16_t vdb_id) const {
  const auto vdb = vdbs_.find(vdb_id);
  return vdb == vdbs_.end() ? nullptr : &vdb->second.types;
}

const ObjectStore::Objects& ObjectStore::All(uint16_t vdb_id, ObjectType type) const {
  static const Objects kNone;
  const auto* const types = Find(vdb_id);
  if (types == nullptr) return kNone;
  const auto objects = types->find(type);
  return objects == types->end() ? kNone : objects->second;
}

Status ObjectStore::CreateVDb(const std::string& name, uint16_t* vdb_id) {
  if (name.empty()) return Invalid("a vdb needs a name");
  if (VDbId(name)) return Status(StatusCode::kAlreadyExists, "there is a vdb \"" + name + "\"");
  if (last_vdb_id_ == UINT16_MAX) return Status(StatusCode::kResourceExhausted, "no vdb id is left");
  // Ids are never reused, because a client may still hold the old one.
  *vdb_id = ++last_vdb_id_;
  vdbs_[*vdb_id].name = name;
  return Status();
}

Status ObjectStore::DeleteVDb(const std::string& name, uint16_t* vdb_id) {
  const std::optional<uint16_t> id = VDbId(name);
  if (!id) return NotFound("no vdb \"" + name + "\"");
  if (*id == kDefaultVDb) return Invalid("the default vdb stays");
  *vdb_id = *id;
  vdbs_.erase(*id);
  return Status();
}

std::optional<uint16_t> ObjectStore::VDbId(const std::string& name) const {
  const auto found = std::find_if(vdbs_.begin(), vdbs_.end(),
                                  [&name](const auto& entry) { return entry.second.name == name; });
  if (found == vdbs_.end()) return std::nullopt;
  return found->first;
}

std::vector<std::pair<uint16_t, std::string>> ObjectStore::VDbs() const {
  std::vector<std::pair<uint16_t, std::string>> list;
  for (const auto& [id, vdb] : vdbs_) list.emplace_back(id, vdb.name);
  return list;
}

std::string SchemaText(ObjectType last_type) {
  std::string text = "enum ObjectType {\n";
  const google::protobuf::EnumDescriptor& types = *proto::ObjectType_descriptor();
  for (int i = 0; i < types.value_count(); ++i) {
    const google::protobuf::EnumValueDescriptor& value = *types.value(i);
    if (value.number() > last_type) continue;
    text += "  " + value.name() + " = " + std::to_string(value.number()) + ";\n";
  }
  return text + "}\n";
}

}  // namespace zem::sim
