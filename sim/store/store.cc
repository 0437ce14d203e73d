#include "sim/store/store.h"

#include "sim/store/where.h"

namespace zem::sim {
namespace {

namespace proto = orlane::zem::covedb;
using rpc::Status;
using rpc::StatusCode;

template <class Request>
Status FindVDb(const ObjectStore& objects, const Request& request, uint16_t* vdb_id) {
  const uint32_t id = request.has_vdb_id() ? request.vdb_id() : ObjectStore::kDefaultVDb;
  if (id > UINT16_MAX || !objects.HasVDb(static_cast<uint16_t>(id))) {
    return Status(StatusCode::kNotFound, "no vdb " + std::to_string(id));
  }
  *vdb_id = static_cast<uint16_t>(id);
  return Status();
}

template <class Response>
void AddObject(ObjectType type, const ObjectValue& value, Response* response) {
  proto::TypedObjectMsg* const object = response->add_object();
  object->set_object_type(type);
  object->set_object(*value);
}

}  // namespace

Store::Store(const ObjectRegistry& registry)
    : registry_(registry), objects_(registry), monitors_(registry, objects_) {}

Status Store::Modify(const std::vector<proto::ModifyRequestMsg>& batch) {
  const std::lock_guard lock(mutex_);
  std::vector<ObjectChange> changes;
  Status status = objects_.Apply(batch, &changes);
  if (status.ok()) monitors_.Publish(changes);
  return status;
}

Status Store::Get(const proto::GetRequestMsg& request, proto::GetResponseMsg* response) const {
  const std::lock_guard lock(mutex_);
  uint16_t vdb_id = 0;
  if (Status status = FindVDb(objects_, request, &vdb_id); !status.ok()) return status;
  for (const proto::ObjectRequestMsg& wanted : request.object_request()) {
    if (!wanted.has_object_type())
      return Status(StatusCode::kInvalidArgument, "a request without object type");
    const ObjectStore::Objects& all = objects_.All(vdb_id, wanted.object_type());
    if (!wanted.has_object()) {
      for (const auto& [key, value] : all) AddObject(wanted.object_type(), value, response);
      continue;
    }
    std::string key;
    Status status = registry_.Key(wanted.object_type(), wanted.object(), &key);
    if (!status.ok()) return status;
    const auto found = all.find(key);
    if (found != all.end()) AddObject(wanted.object_type(), found->second, response);
  }
  return Status();
}

Status Store::Query(const proto::QueryRequestMsg& request, proto::QueryResponseMsg* response) const {
  const std::lock_guard lock(mutex_);
  uint16_t vdb_id = 0;
  if (Status status = FindVDb(objects_, request, &vdb_id); !status.ok()) return status;
  const proto::StatementMsg& statement = request.statement();
  if (Status status = CheckStatement(registry_, statement); !status.ok()) return status;
  for (const auto& [key, value] : objects_.All(vdb_id, statement.object_type())) {
    if (Matches(registry_, statement, *value)) AddObject(statement.object_type(), value, response);
  }
  return Status();
}

Status Store::CreateVDb(const std::string& name, uint16_t* vdb_id) {
  const std::lock_guard lock(mutex_);
  return objects_.CreateVDb(name, vdb_id);
}

Status Store::DeleteVDb(const std::string& name) {
  const std::lock_guard lock(mutex_);
  uint16_t vdb_id = 0;
  Status status = objects_.DeleteVDb(name, &vdb_id);
  if (status.ok()) monitors_.EndVDb(vdb_id, Status(StatusCode::kVdbGone, "the vdb was deleted"));
  return status;
}

std::vector<std::pair<uint16_t, std::string>> Store::VDbs() const {
  const std::lock_guard lock(mutex_);
  return objects_.VDbs();
}

void Store::Monitor(const std::string& client_id, const proto::MonitorRequestMsg& request,
                    std::shared_ptr<MonitorSink> sink) {
  const std::lock_guard lock(mutex_);
  monitors_.Open(client_id, request, std::move(sink));
}

Status Store::ConfigureMonitor(const std::string& client_id, const proto::ConfigureMonitorRequestMsg& request,
                               proto::ConfigureMonitorResponseMsg* response) {
  const std::lock_guard lock(mutex_);
  return monitors_.Configure(client_id, request, response);
}

void StoreStreams::Ended(const MonitorSink& sink) {
  const std::lock_guard lock(mutex_);
  monitors_.Ended(sink);
}

void StoreStreams::Writable(const MonitorSink& sink) {
  const std::lock_guard lock(mutex_);
  monitors_.Drain(sink);
}

size_t StoreStreams::SendBarrier(uint16_t vdb_id) {
  const std::lock_guard lock(mutex_);
  return monitors_.SendBarrier(vdb_id);
}

size_t StoreStreams::End(const std::string& monitor_id, const Status& status) {
  const std::lock_guard lock(mutex_);
  return monitors_.EndMonitor(monitor_id, status);
}

std::vector<MonitorInfo> StoreStreams::List() const {
  const std::lock_guard lock(mutex_);
  return monitors_.Streams();
}

void StoreStreams::SetGarbage(int count) {
  const std::lock_guard lock(mutex_);
  monitors_.SetGarbage(count);
}

std::vector<Store::TypeCount> Store::Counts() const {
  const std::lock_guard lock(mutex_);
  std::vector<TypeCount> counts;
  for (const auto& [vdb_id, name] : objects_.VDbs()) {
    for (const auto& [type, objects] : *objects_.Find(vdb_id)) {
      if (!objects.empty()) counts.push_back({vdb_id, type, objects.size()});
    }
  }
  return counts;
}

void Store::SetSchema(std::string version, ObjectType last_type) {
  const std::lock_guard lock(mutex_);
  schema_version_ = std::move(version);
  objects_.SetLastType(last_type);
}

std::string Store::SchemaVersion() const {
  const std::lock_guard lock(mutex_);
  return schema_version_;
}

std::string Store::Schema() const {
  const std::lock_guard lock(mutex_);
  return SchemaText(objects_.last_type());
}

}  // namespace zem::sim
