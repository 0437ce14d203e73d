#include "app/zema/covedb/store_writer.h"

#include <ctime>
#include <optional>
#include <set>
#include <utility>

#include "app/zema/covedb/edge_codec.h"
#include "app/zema/covedb/host_config_codec.h"
#include "app/zema/covedb/pending_logical_switches.h"
#include "covedbclient/codec/address_codec.h"
#include "framework/log/log.h"
#include "platform/core/clock.h"
#include "platform/timeline/operation.h"
#include "platform/timeline/step.h"
#include "proto/config/config.pb.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/runtime_objects.pb.h"
#include "proto/covedb/switching_objects.pb.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace store = orlane::zem::covedb;
using covedb::ModifyRequestMsg;
using store::ObjectType;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr uint32_t kRuntimeStatus = 5;
constexpr uint32_t kBarrierSize = 8;
constexpr const char* kHostConfigType = "com.orlane.zem.switching.HostConfigMsg";
constexpr const char* kMmodeType = "com.orlane.zem.switching.MaintenanceModeConfigMsg";
constexpr const char* kControllersType = "com.orlane.zem.config.MpLcpMsg";

template <class Object>
store::PutMsg* AddPut(ModifyRequestMsg* request, ObjectType type, const Object& object) {
  store::PutMsg* const put = request->add_modify_msg()->mutable_put_msg();
  put->set_object_type(type);
  put->set_object(object.SerializeAsString());
  return put;
}

void AddFlush(ModifyRequestMsg* request, ObjectType type) {
  request->add_modify_msg()->mutable_flush_msg()->set_object_type(type);
}

void AddBarrier(ModifyRequestMsg* request, uint64_t barrier) {
  store::ProcessedBarrierMsg processed;
  processed.set_value(barrier);
  AddPut(request, ObjectType::PROCESSED_BARRIER, processed)->set_size(kBarrierSize);
}

template <class Uuids>
void AddError(const std::string& text, const Uuids& uuids, store::RuntimeStatusMsg* status) {
  store::RealizationErrorMsg* const error = status->add_realization_error();
  error->set_error_text(text);
  for (const std::string& uuid : uuids) {
    if (!UUID_FromString(uuid, error->add_entity())) error->mutable_entity()->RemoveLast();
  }
}

// The time as "ctime" prints it, including its newline.
std::string WriteTime() {
  const std::time_t now = std::chrono::system_clock::to_time_t(Clock::Process().WallNow());
  char text[32];
  return ::ctime_r(&now, text) == nullptr ? std::string() : std::string(text);
}

// --- The requests by which an edge stores a message; empty when the message cannot be stored.

using Requests = std::list<ModifyRequestMsg>;

Requests HostConfigRequests(store::RealizedHostConfigMsg stored, const std::string& header) {
  stored.mutable_amqp_header()->set_header(header);
  stored.set_write_time(WriteTime());
  Requests requests(1);
  AddFlush(&requests.back(), ObjectType::HOST_CONFIG);
  AddPut(&requests.back(), ObjectType::HOST_CONFIG, stored);
  return requests;
}

std::optional<Requests> HostConfigRequestsOf(const RawBusMessage& message) {
  orlane::zem::switching::HostConfigMsg config;
  if (!config.ParseFromString(message.payload)) {
    ZLOG_ERROR("41512", "Failed to parse HostConfigMsg message");
    return std::nullopt;
  }
  std::unique_ptr<store::RealizedHostConfigMsg> stored = StoreWriter::EncodeHostConfig(config);
  if (stored == nullptr) return std::nullopt;
  return HostConfigRequests(std::move(*stored), message.header);
}

std::optional<Requests> MmodeRequests(const RawBusMessage& message) {
  orlane::zem::switching::MaintenanceModeConfigMsg config;
  if (!config.ParseFromString(message.payload)) {
    ZLOG_ERROR("41512", "Failed to parse maintenance mode config message");
    return std::nullopt;
  }
  store::MaintenanceModeConfigMsg stored;
  if (EncodeMaintenanceModeConfigMsg(config, &stored) != 0) {
    ZLOG_ERROR("44091", "Error Encoding Maintainence Mode Config Message into db format");
    return std::nullopt;
  }
  stored.mutable_amqp_header()->set_header(message.header);
  stored.set_write_time(WriteTime());
  Requests requests(1);
  AddFlush(&requests.back(), ObjectType::MAINTENANCE_MODE_CONFIG);
  AddPut(&requests.back(), ObjectType::MAINTENANCE_MODE_CONFIG, stored);
  return requests;
}

std::optional<Requests> ControllerRequests(const RawBusMessage& message) {
  orlane::zem::config::MpLcpMsg controllers;
  if (!controllers.ParseFromString(message.payload)) {
    ZLOG_ERROR("ERR_MSG_CONTROLLER_LIST_PARSE_FAIL", "Failed to parse ControllerList message");
    return std::nullopt;
  }
  std::list<store::ControllerInfoMsg> stored;
  if (EncodeControllerInfoMsgs(controllers, &stored) != 0) {
    ZLOG_ERROR("44091", "Error Encoding Controller List Message into db format");
    return std::nullopt;
  }
  Requests requests(1);
  AddFlush(&requests.back(), ObjectType::CONTROLLER_INFO);
  for (const store::ControllerInfoMsg& controller : stored) {
    AddPut(&requests.back(), ObjectType::CONTROLLER_INFO, controller);
  }
  return requests;
}

constexpr std::pair<const char*, std::optional<Requests> (*)(const RawBusMessage&)> kStoredTypes[] = {
    {kHostConfigType, HostConfigRequestsOf},
    {kMmodeType, MmodeRequests},
    {kControllersType, ControllerRequests},
};

}  // namespace

StoreWriter::StoreWriter(Settings settings, PendingLogicalSwitches& pending)
    : settings_(std::move(settings)), pending_(pending) {}

void StoreWriter::Modify(std::list<ModifyRequestMsg> requests) {
  settings_.client->Modify(std::move(requests),
                           [keep_alive = settings_.keep_alive, carried = timeline::Carried()] {
                             if (!carried.operation()) return;
                             const timeline::Scope scope(carried.operation());
                             timeline::Waited("writes to the store", carried.since());
                           });
}

void StoreWriter::Modify(ModifyRequestMsg request) {
  std::list<ModifyRequestMsg> requests;
  requests.push_back(std::move(request));
  Modify(std::move(requests));
}

int StoreWriter::SaveMessage(const RawBusMessage* message) {
  if (message == nullptr) {
    ZLOG_ERROR("41519", "Client Message is NULL");
    return -1;
  }
  if (message->payload.empty()) {
    ZLOG_ERROR("41519", "Invalid/Empty payload received of length [%ld]",
               static_cast<long>(message->payload.size()));
    return -1;
  }
  Requests requests;
  for (const auto& [type, make] : kStoredTypes) {
    if (message->type != type) continue;
    std::optional<Requests> made = make(*message);
    if (!made) return -1;
    requests = std::move(*made);
    if (type == kMmodeType && settings_.maintenance_action) settings_.maintenance_action(*message);
  }
  if (requests.empty()) {
    ZLOG_DEBUG("Size of Modify Request List is 0");
    return 0;
  }
  Modify(std::move(requests));
  return 0;
}

std::unique_ptr<store::RealizedHostConfigMsg> StoreWriter::EncodeHostConfig(
    const orlane::zem::switching::HostConfigMsg& config) {
  auto stored = std::make_unique<store::RealizedHostConfigMsg>();
  if (EncodeHostConfigMsg(config, stored.get()) == 0) return stored;
  ZLOG_ERROR("44091", "Error Encoding Host Config Message into db format");
  return nullptr;
}

void StoreWriter::SaveHostConfig(store::RealizedHostConfigMsg stored, const std::string& header) {
  Modify(HostConfigRequests(std::move(stored), header));
}

void StoreWriter::WriteProcessedBarrier(uint64_t barrier) {
  ModifyRequestMsg request;
  AddBarrier(&request, barrier);
  Modify(std::move(request));
}

void StoreWriter::WriteRealized(uint64_t barrier) { WriteFullSyncResult(nullptr, {}, barrier); }

void StoreWriter::WriteRealizationError(const std::string& text, const std::vector<std::string>& uuids,
                                        uint64_t barrier) {
  std::set<std::string> all(uuids.begin(), uuids.end());
  for (std::string& uuid : pending_.GetPendingLsKeys()) all.insert(std::move(uuid));
  WriteFullSyncResult(&text, {all.begin(), all.end()}, barrier);
}

void StoreWriter::WriteFullSyncResult(const std::string* error, const std::vector<std::string>& uuids,
                                      uint64_t barrier) {
  store::RuntimeStatusMsg status;
  status.set_status(kRuntimeStatus);
  if (error != nullptr) AddError(*error, uuids, &status);
  ModifyRequestMsg request;
  AddPut(&request, ObjectType::RUNTIME_STATUS, status);
  if (barrier != 0) AddBarrier(&request, barrier);
  Modify(std::move(request));
}

}  // namespace zem::zema
