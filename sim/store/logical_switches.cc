#include "sim/store/logical_switches.h"

#include "platform/core/uuid.h"
#include "proto/covedb/runtime_objects.pb.h"
#include "proto/covedb/switching_objects.pb.h"

namespace zem::sim {
namespace {

namespace proto = orlane::zem::covedb;
using proto::ObjectType;

// The first half of a uuid identifies the kind of object; the form is that of version 4.
constexpr uint64_t kSwitchUuids = 0x15000000'0000'4000;
constexpr uint64_t kZoneUuids = 0x7a000000'0000'4000;
constexpr uint64_t kNodeUuids = 0x70de0000'0000'4000;
constexpr uint64_t kSecondHalf = 0x8000'000000000000;

template <class Uuid>
void SetNumbered(uint64_t kind, uint32_t number, Uuid* uuid) {
  uuid->set_first(kind);
  uuid->set_second(kSecondHalf | number);
}

void AddBarrier(uint64_t barrier, proto::ModifyRequestMsg* request) {
  proto::BarrierMsg message;
  message.set_value(barrier);
  proto::PutMsg& put = *request->add_modify_msg()->mutable_put_msg();
  put.set_object_type(ObjectType::BARRIER);
  put.set_object(message.SerializeAsString());
}

}  // namespace

std::string LogicalSwitchUuid(uint32_t number) {
  return UuidText(UuidFromHalves(kSwitchUuids, kSecondHalf | number));
}

std::string TransportZoneUuid(uint32_t number) {
  return UuidText(UuidFromHalves(kZoneUuids, kSecondHalf | number));
}

proto::OpaqueLogSwitchConfigMsg MakeLogicalSwitch(uint32_t number, uint32_t zones, int32_t revision) {
  const std::string name = "ls-" + std::to_string(number);
  proto::OpaqueLogSwitchConfigMsg message;
  SetNumbered(kSwitchUuids, number, message.mutable_id());
  message.set_revision(revision);
  SetNumbered(kZoneUuids, zones == 0 ? 0 : number % zones, message.mutable_transport_zone_id());
  message.set_name(name);
  message.set_segment_path("/infra/segments/" + name);
  return message;
}

proto::ModifyRequestMsg PutLogicalSwitches(const SwitchRange& range, uint64_t barrier, bool transport_node) {
  proto::ModifyRequestMsg request;
  if (transport_node) {
    proto::TransportNodeConfigMsg node;
    SetNumbered(kNodeUuids, 1, node.mutable_id());
    proto::PutMsg& put = *request.add_modify_msg()->mutable_put_msg();
    put.set_object_type(ObjectType::TRANSPORT_NODE_CONFIG);
    put.set_object(node.SerializeAsString());
  }
  for (uint32_t i = 0; i < range.count; ++i) {
    proto::PutMsg& put = *request.add_modify_msg()->mutable_put_msg();
    put.set_object_type(ObjectType::OPAQUE_LOG_SWITCH_CONFIG);
    put.set_object(MakeLogicalSwitch(range.first + i, range.zones, range.revision).SerializeAsString());
  }
  AddBarrier(barrier, &request);
  return request;
}

proto::ModifyRequestMsg DeleteLogicalSwitches(const SwitchRange& range, uint64_t barrier) {
  proto::ModifyRequestMsg request;
  for (uint32_t i = 0; i < range.count; ++i) {
    proto::OpaqueLogSwitchConfigMsg key;
    SetNumbered(kSwitchUuids, range.first + i, key.mutable_id());
    proto::DeleteMsg& removal = *request.add_modify_msg()->mutable_delete_msg();
    removal.set_object_type(ObjectType::OPAQUE_LOG_SWITCH_CONFIG);
    removal.set_object(key.SerializeAsString());
  }
  AddBarrier(barrier, &request);
  return request;
}

}  // namespace zem::sim
