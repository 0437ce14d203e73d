#include "app/zema/app/message_dispatch.h"

#include <iterator>

#include "app/zema/hostconfig/host_config_timeline.h"
#include "app/zema/workers/worker_tasks.h"
#include "framework/log/log.h"
#include "framework/tasks/runnable.h"
#include "platform/timeline/step.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "ProcessReceiveMessages";
constexpr std::string_view kPrefix = "com.orlane.zem.switching.";
constexpr const char* kNotTaken = "No worker takes the request.";
constexpr const char* kTooManyWait = "Too many requests wait to be realized.";

bool Parse(std::string_view payload, google::protobuf::Message* message) {
  if (message->ParseFromArray(payload.data(), static_cast<int>(payload.size()))) return true;
  timeline::Finish(timeline::Current(), "the message cannot be parsed");
  return false;
}

// A request about an endpoint is asked for by its switch and its device.
template <class EndpointRequest>
void AddKeys(const EndpointRequest& request) {
  const timeline::OperationPtr operation = timeline::Current();
  if (!operation) return;
  operation->AddKey(request.request_id());
  operation->AddKey(request.switch_id());
  operation->AddKey(request.device_name());
}

// The task ends its operation; when there is none, nobody else does.
void EndUnless(bool taken) {
  if (!taken) timeline::Finish(timeline::Current(), kNotTaken);
}

}  // namespace

const MessageDispatch::Row MessageDispatch::kRows[] = {
    {"LogicalSwitchMsg", &MessageDispatch::TakeLogicalSwitch, Worker::kLogicalSwitch},
    {"LogicalSwitchBulkMsg", &MessageDispatch::TakeLogicalSwitchBulk, Worker::kHostSync},
    {"VifMsg", &MessageDispatch::TakeVif, std::nullopt},
    {"HostConfigMsg", &MessageDispatch::TakeHostConfig, Worker::kHostSync},
    {"MaintenanceModeConfigMsg", &MessageDispatch::TakeMaintenanceMode, Worker::kHostSync},
    {"ChecksumMsg", &MessageDispatch::TakeChecksum, Worker::kPostHostSync},
    {"HostProfileMsg", &MessageDispatch::TakeHostProfile, Worker::kHostSync},
    {"TransportNodeHostSwitchesMigrationMsg", &MessageDispatch::RefuseMigrationToKln, std::nullopt},
    {"VTEPRecoveryRequestMsg", &MessageDispatch::TakeVtepRecovery, Worker::kHostSync},
    {"VTEPAdminStateMgmtRequestMsg", &MessageDispatch::TakeVtepAdminState, Worker::kHostSync},
    {"VtepIPSyncMsg", &MessageDispatch::TakeVtepIpSync, Worker::kPostHostSync},
};

MessageDispatch::MessageDispatch(MpaMessageSender& sender, WorkerTable& workers,
                                 std::shared_ptr<ManagerRequests> requests)
    : sender_(sender), workers_(workers), requests_(std::move(requests)) {}

void MessageDispatch::ProcessReceiveMessages(const std::string& message_key, const std::string& type,
                                             std::string_view payload, const std::string& correlation_id,
                                             const std::string& reply_to, const std::string& header) {
  if (payload.empty()) {
    ZLOG_ERROR("41519", "[%s] NULL/empty payload of length [%d]\n", kTag, 0);
    return;
  }
  if (std::string_view(type).substr(0, kPrefix.size()) == kPrefix) {
    for (const Row& row : kRows) {
      if (std::string_view(type).substr(kPrefix.size()) != row.type) continue;
      const Incoming message{message_key, payload, {&sender_, correlation_id, reply_to, header}};
      if (row.worker && !workers_.TakesRequest(*row.worker)) {
        const timeline::OperationPtr refused = BeginRefused(row, message);
        const timeline::Scope scope(refused);
        requests_->Refuse(message.origin, row.type, std::string(payload), kTooManyWait);
        timeline::Finish(refused, kTooManyWait);
        return;
      }
      // The others begin theirs when they know whose they are.
      timeline::OperationPtr setting;
      if (row.worker == Worker::kHostSync && row.take != &MessageDispatch::TakeHostConfig) {
        setting = timeline::Begin(timeline::Kind::kHostSetting, row.type, {row.type, correlation_id});
      }
      const timeline::Scope scope(setting);
      timeline::Note("received", {});
      (this->*row.take)(message);
      return;
    }
  }
  ZLOG_ERROR("41521", "[%s] Unsupported message type [%s] from MPA\n", kTag, type.c_str());
}

// A request that finds no room has an answer, which has to be explained as well.
timeline::OperationPtr MessageDispatch::BeginRefused(const Row& row, const Incoming& message) {
  if (row.take == &MessageDispatch::TakeHostConfig) {
    switching::HostConfigMsg parsed;
    return Parse(message.payload, &parsed) ? BeginHostConfig(parsed, "of the manager, refused") : nullptr;
  }
  if (row.worker != Worker::kHostSync) return nullptr;
  return timeline::Begin(timeline::Kind::kHostSetting, row.type, {row.type, message.origin.correlation_id});
}

void MessageDispatch::TakeLogicalSwitch(const Incoming& message) {
  switching::LogicalSwitchMsg parsed;
  if (!Parse(message.payload, &parsed)) {
    ZLOG_ERROR("41513", "[%s] Failed to parse logical switch message\n", kTag);
    return;
  }
  if (auto task = requests_->LogicalSwitch(message.origin, parsed)) {
    workers_.AddTask(Worker::kLogicalSwitch, std::move(task));
  }
}

void MessageDispatch::TakeLogicalSwitchBulk(const Incoming& message) {
  EndUnless(workers_.AddTask(Worker::kHostSync,
                             requests_->LogicalSwitchFullSync(message.origin, std::string(message.payload))));
}

void MessageDispatch::TakeHostConfig(const Incoming& message) {
  switching::HostConfigMsg parsed;
  if (!Parse(message.payload, &parsed)) {
    ZLOG_ERROR("41512", "[%s] Failed to parse HostConfigMsg message\n", kTag);
    return;
  }
  switching::HostConfigAckMsg ack;
  if (parsed.has_transport_node_id()) ack.set_transport_node_id(parsed.transport_node_id());
  if (parsed.has_id()) ack.set_id(parsed.id());
  if (parsed.has_revision()) ack.set_revision(parsed.revision());
  const timeline::Scope scope(BeginHostConfig(parsed, "of the manager, revision " + parsed.revision()));
  timeline::Note("received", std::to_string(message.payload.size()) + " bytes, " +
                                 std::to_string(parsed.host_switches_size()) + " switches");
  requests_->AcknowledgeHostConfig(message.origin.reply_to, ack);
  // A refused task is logged there, and the manager sends the configuration again.
  EndUnless(static_cast<bool>(
      AddHostConfigTask(workers_, requests_->HostConfig(message.origin, std::move(parsed)))));
}

void MessageDispatch::TakeMaintenanceMode(const Incoming& message) {
  switching::MaintenanceModeConfigMsg parsed;
  if (!Parse(message.payload, &parsed)) {
    ZLOG_ERROR("41512", "[%s] Failed to parse maintenance mode config message\n", kTag);
    return;
  }
  if (const auto operation = timeline::Current()) operation->AddKey(parsed.id());
  auto task = requests_->MaintenanceMode(message.origin, parsed);
  EndUnless(task && workers_.AddTask(Worker::kHostSync, std::move(task)));
}

void MessageDispatch::TakeChecksum(const Incoming& message) {
  switching::ChecksumMsg parsed;
  if (!Parse(message.payload, &parsed)) {
    ZLOG_ERROR("ERR_MSG_RESTORE_CHECKSUM_PARSE_FAIL", "[%s] Failed to parse CheckSum message\n", kTag);
    return;
  }
  workers_.AddTask(Worker::kPostHostSync, requests_->Restore(message.origin, parsed));
}

void MessageDispatch::TakeHostProfile(const Incoming& message) {
  switching::HostProfileMsg parsed;
  if (!Parse(message.payload, &parsed)) {
    ZLOG_ERROR("41545", "[%s] Failed to parse Host Profile message\n", kTag);
    requests_->RefuseHostProfile(message.origin, "Failed to parse Host Profile message");
    return;
  }
  auto task = requests_->HostProfile(message.origin, parsed);
  if (task == nullptr) {
    requests_->RefuseHostProfile(message.origin, "Error creating HostProfile task");
    EndUnless(false);
    return;
  }
  EndUnless(workers_.AddTask(Worker::kHostSync, std::move(task)));
}

void MessageDispatch::RefuseMigrationToKln(const Incoming&) {
  ZLOG_ERROR("44413", "Migrate to CKLN feature is not enabled");
}

void MessageDispatch::TakeVtepRecovery(const Incoming& message) {
  switching::VTEPRecoveryRequestMsg parsed;
  if (!Parse(message.payload, &parsed)) {
    ZLOG_ERROR("41512", "[%s] Failed to parse Vtep Recovery message\n", kTag);
    return;
  }
  AddKeys(parsed);
  auto task = requests_->VtepRecovery(message.origin, parsed);
  if (task == nullptr) {
    ZLOG_ERROR("44411", "Failed to create VtepRecoveryTask");
    EndUnless(false);
    return;
  }
  EndUnless(AddVtepRecoveryTask(workers_, std::move(task)));
}

void MessageDispatch::TakeVtepAdminState(const Incoming& message) {
  switching::VTEPAdminStateMgmtRequestMsg parsed;
  if (!Parse(message.payload, &parsed)) {
    ZLOG_ERROR("41512", "[%s] Failed to parse Vtep Admin State message\n", kTag);
    return;
  }
  AddKeys(parsed);
  auto task = requests_->VtepAdminState(message.origin, parsed);
  if (task == nullptr) {
    ZLOG_ERROR("44411", "Failed to create vtepAdminStateTask");
    EndUnless(false);
    return;
  }
  EndUnless(AddVtepAdminStateTask(workers_, std::move(task)));
}

void MessageDispatch::TakeVtepIpSync(const Incoming& message) {
  switching::VtepIPSyncMsg parsed;
  if (!Parse(message.payload, &parsed)) {
    ZLOG_ERROR("41512", "[%s] Failed to parse vtepIPSyncMsg message\n", kTag);
    return;
  }
  requests_->SyncVtepAddresses(message.origin, parsed);
}

}  // namespace zem::zema
