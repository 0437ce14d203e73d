#include "app/zema/lswitch/db_svc_task_thread.h"

#include <algorithm>
#include <deque>
#include <exception>
#include <map>
#include <optional>
#include <utility>

#include "app/zema/covedb/covedb_handler.h"
#include "app/zema/covedb/host_config_codec.h"
#include "app/zema/covedb/logical_switch_codec.h"
#include "app/zema/lswitch/covedb_update_task.h"
#include "app/zema/lswitch/logical_switch_msg_task.h"
#include "app/zema/manager/mpa_message_sender.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/workers/task_queues.h"
#include "covedbclient/codec/address_codec.h"
#include "framework/log/log.h"
#include "platform/timeline/operation.h"
#include "platform/wft/workflow_util.h"
#include "proto/covedb/switching_objects.pb.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

namespace store = orlane::zem::covedb;
using orlane::zem::switching::LogicalSwitchBulkMsg;
using orlane::zem::switching::LogicalSwitchesOfTZMsg;
using store::ObjectOpMsg;
using store::ObjectType;
using store::OpaqueLogSwitchConfigMsg;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr size_t kFullSyncChunk = 100;
constexpr uint32_t kBegin = 0;
constexpr uint32_t kContinue = 1;

int OperationOf(const DbSvcTaskThread::Update& update) {
  ObjectOpMsg op;
  return op.ParseFromString(update.operation()) ? op.operation() : 0;
}

}  // namespace

// The contents of the cache as the host needs them, with each object parsed once.
struct DbSvcTaskThread::FullSync {
  using Uuid = std::pair<uint64_t, uint64_t>;
  struct Entry {
    Uuid zone;
    const char* skipped;  // why the switch is not sent; null: it is sent
    OpaqueLogSwitchConfigMsg* config;
  };

  // The transport node first, then every switch in the order of the cache.
  std::vector<std::string> Uuids() const {
    std::vector<std::string> uuids;
    if (node) uuids.push_back(UUID_ToString(*node));
    for (const OpaqueLogSwitchConfigMsg& config : configs) {
      if (config.has_id()) uuids.push_back(UUID_ToString(config.id()));
    }
    return uuids;
  }

  std::optional<orlane::zem::UuidMsg> node;
  std::deque<OpaqueLogSwitchConfigMsg> configs;  // in the cache's order; never moved
  std::vector<Entry> entries;                    // sorted by zone
};

DbSvcTaskThread::DbSvcTaskThread(std::string name, std::shared_ptr<LogicalSwitchContext> context)
    : TaskThread(std::move(name)), context_(std::move(context)) {}

DbSvcTaskThread::~DbSvcTaskThread() { StopAndJoin(); }

void DbSvcTaskThread::Execute(Runnable& task) {
  if (auto* const update = dynamic_cast<CovedbUpdateTask*>(&task)) {
    update->RunOn(*this);
  } else {
    task.Run();
  }
}

void DbSvcTaskThread::RemovePendingLs(const std::string& uuid) {
  context_->store->pending().RemovePendingLs(uuid);
}

std::vector<std::string> DbSvcTaskThread::GetPendingLsKeys() {
  return context_->store->pending().GetPendingLsKeys();
}

void DbSvcTaskThread::ClearPendingLs() { context_->store->pending().ClearPendingLs(); }

// Logs one line for all the work that a flush has made void.
bool DbSvcTaskThread::IsVoid(uint64_t epoch) {
  const uint64_t present = context_->store->epoch();
  if (epoch == present) return false;
  if (last_void_ != present) {
    ZLOG_INFO("[%s] what the store told before its flush is dropped", name().c_str());
  }
  last_void_ = present;
  return true;
}

void DbSvcTaskThread::DropCut(const CovedbOrigin& origin) {
  if (cached_from_ == origin) return;
  if (!tx_cache_.empty()) {
    ZLOG_INFO("[%s] a transaction that was cut after %lu entities is dropped", name().c_str(),
              static_cast<unsigned long>(tx_cache_.size()));
  }
  tx_cache_.clear();
  cached_from_ = origin;
}

void DbSvcTaskThread::AddToCache(Update update, const CovedbOrigin& origin) {
  if (IsVoid(origin.epoch)) return;
  DropCut(origin);
  tx_cache_.push_back(std::move(update));
}

void DbSvcTaskThread::SetLastBarrier(uint64_t barrier) {
  if (barrier < last_barrier_) context_->fence.RestartBarriers();
  last_barrier_ = barrier;
}

// The barrier is queued after the switch tasks that are already waiting: it reports that they are done.
void DbSvcTaskThread::AddBarrierTask() {
  (void)context_->workers.AddTask(
      Worker::kLogicalSwitch,
      std::make_unique<CovedbUpdateTask>(context_->store, last_barrier_, context_->fence.epoch()));
}

void DbSvcTaskThread::RealizeLogicalSwitch(const CovedbOrigin& origin) {
  const Validity validity{origin.epoch, context_->fence.generation()};
  if (IsVoid(origin.epoch)) return;
  DropCut(origin);
  if (tx_cache_.empty()) {
    ZLOG_DEBUG("Transaction cache is empty, no-op.");
    AddBarrierTask();
    return;
  }
  try {
    if (origin.full_sync) {
      full_sync_pending_ = true;
      ProcessLogicalSwitchFullSyncMsg(last_barrier_, origin.epoch);
    } else if (full_sync_pending_) {
      ZLOG_INFO("Re-scheduling Logical Switch Full sync with override");
      context_->store->ScheduleFullSyncRead(origin.epoch);
    } else {
      ProcessLogicalSwitchMsg(last_barrier_, validity);
    }
    ZLOG_INFO("[%s] Logical Switch Realization completed for barrier: [%llu] Entities processed: [%lu]",
              __func__, static_cast<unsigned long long>(last_barrier_),
              static_cast<unsigned long>(tx_cache_.size()));
    tx_cache_.clear();
  } catch (const std::exception& e) {
    full_sync_pending_ = true;
    tx_cache_.clear();
    context_->store->ScheduleFullSyncRead(origin.epoch);
    ZLOG_ERROR("44098",
               "[%s] : Failed to process Logical Switches, scheduling full-sync: caught exception [%s]",
               __func__, e.what());
  }
}

void DbSvcTaskThread::ProcessLogicalSwitchMsg(uint64_t barrier, const Validity& validity) {
  bool queued = false;
  for (const Update& update : tx_cache_) {
    if (update.object_type() != ObjectType::OPAQUE_LOG_SWITCH_CONFIG) continue;
    queued = HandleOpaqueLogSwitchMsg(update, barrier, true, validity) || queued;
  }
  // The transaction holds nothing for this host, but it still has to be reported as done.
  if (!queued) AddBarrierTask();
}

bool DbSvcTaskThread::HandleOpaqueLogSwitchMsg(const Update& update, uint64_t barrier, bool remember,
                                               const Validity& validity) {
  OpaqueLogSwitchConfigMsg config;
  store::OpaqueLogSwitchConfigOpMsg op;
  OpaqueLogSwitchConfigMsg before;
  if (!config.ParseFromString(update.object()) || !op.ParseFromString(update.operation()) ||
      !before.ParseFromString(update.old_object())) {
    ZLOG_ERROR("44096", "[%s] an object of type 127 does not parse, skipped", __func__);
    return false;
  }
  orlane::zem::switching::LogicalSwitchMsg message;
  DecodeOpaqueLogSwitchMsg(config, op, before, &message);
  const std::string& uuid = message.logical_switch_info(0).logical_switch_id();
  if (remember && !context_->store->AddPendingLs(uuid, update, validity.epoch)) return false;
  if (!update.has_trace_context()) {
    ZLOG_TRACE("Workflow tracing information not found");
    return QueueLogicalSwitch(message, uuid, barrier, validity.generation);
  }
  const store::TraceContextMsg& trace = update.trace_context();
  const auto span =
      wft::WorkflowUtil::StartChildSpan("DbSvcTaskThread.HandleOpaqueLogSwitchMsg", wft::kTraceInfo,
                                        wft::TraceContext{trace.trace_id_low(), trace.span_id()});
  return QueueLogicalSwitch(message, uuid, barrier, validity.generation);
}

bool DbSvcTaskThread::QueueLogicalSwitch(const orlane::zem::switching::LogicalSwitchMsg& message,
                                         const std::string& uuid, uint64_t barrier, uint64_t generation) {
  auto task = LogicalSwitchMsgTask::CreateTask(*context_, message, nullptr, CoveDbHandler::kReplyTo, barrier,
                                               generation);
  if (task == nullptr) {
    ZLOG_WARN("[%s] Error creating Logical Switch processing task", "HandleOpaqueLogSwitchMsg");
    // The switch will never be realized, so it does not stay pending.
    RemovePendingLs(uuid);
    return false;
  }
  return context_->workers.AddTask(Worker::kLogicalSwitch, std::move(task));
}

void DbSvcTaskThread::ProcessLogicalSwitchFullSyncMsg(uint64_t barrier, uint64_t epoch) {
  FullSync sync = ReadCache();
  Outcome sent = Outcome::Done();
  {
    // Waits for a running batch, so that it cannot create switches again after the full sync.
    const Synchronizer lock(context_->fence, __FILE__, __LINE__);
    // A flush takes the same lock before it clears the host.
    if (IsVoid(epoch)) return;
    ClearPendingLs();
    context_->workers.ClearTasks(Worker::kLogicalSwitch);
    context_->fence.Supersede();
    sent = SendFullSync(sync);
  }
  if (sent) {
    full_sync_pending_ = false;
    context_->store->writer().WriteFullSyncResult(nullptr, {}, barrier);
  } else {
    ZLOG_INFO("Schedule Logical Switch Full sync");
    context_->store->ScheduleFullSyncRead(epoch);
    context_->store->writer().WriteFullSyncResult(&sent.error(), sync.Uuids(), barrier);
  }
  ZLOG_INFO("[%s] Logical Switch Full Sync complete", __func__);
}

DbSvcTaskThread::FullSync DbSvcTaskThread::ReadCache() {
  FullSync sync;
  sync.entries.reserve(tx_cache_.size());
  // A transaction may change a switch more than once, or remove it again: only the last update counts.
  std::map<FullSync::Uuid, size_t> last;
  for (const Update& update : tx_cache_) {
    if (update.object_type() == ObjectType::TRANSPORT_NODE_CONFIG) {
      store::TransportNodeConfigMsg node;
      if (!sync.node && node.ParseFromString(update.object()) && node.has_id()) sync.node = node.id();
      continue;
    }
    OpaqueLogSwitchConfigMsg& config = sync.configs.emplace_back();
    const char* skipped = nullptr;
    if (update.object_type() != ObjectType::OPAQUE_LOG_SWITCH_CONFIG) {
      skipped = "Object is not of type OpaqueLogSwitch";
    } else if (!update.has_object() || update.object().empty()) {
      skipped = "Object has empty body";
    } else if (!config.ParseFromString(update.object()) || !config.has_id()) {
      skipped = "Object does not parse";
    } else {
      const FullSync::Uuid uuid{config.id().first(), config.id().second()};
      // The store sends its objects in the order of their keys.
      const auto present = last.try_emplace(last.end(), uuid, sync.entries.size());
      if (present->second != sync.entries.size()) {
        sync.entries[std::exchange(present->second, sync.entries.size())].skipped = "Object is replaced";
      }
      if (OperationOf(update) == ObjectOpMsg::DELETE) skipped = "Object is removed";
    }
    const orlane::zem::UuidMsg& zone = config.transport_zone_id();
    sync.entries.push_back({{zone.first(), zone.second()}, skipped, &config});
  }
  std::stable_sort(sync.entries.begin(), sync.entries.end(),
                   [](const FullSync::Entry& a, const FullSync::Entry& b) { return a.zone < b.zone; });
  return sync;
}

Outcome DbSvcTaskThread::SendFullSync(FullSync& sync) {
  if (sync.entries.empty()) {
    ZLOG_INFO("[%s] Received TN Config Msg with Zero Logical Switches", "ProcessLogicalSwitchFullSyncMsg");
    LogicalSwitchBulkMsg none;
    none.set_continuation_flag(kBegin);
    return SendBulk(none);
  }
  for (size_t begin = 0; begin < sync.entries.size(); begin += kFullSyncChunk) {
    LogicalSwitchBulkMsg bulk;
    bulk.set_continuation_flag(begin == 0 ? kBegin : kContinue);
    LogicalSwitchesOfTZMsg* zone = nullptr;
    FullSync::Uuid zone_id;
    const size_t end = std::min(begin + kFullSyncChunk, sync.entries.size());
    for (size_t i = begin; i < end; ++i) {
      const FullSync::Entry& entry = sync.entries[i];
      if (entry.skipped != nullptr) {
        ZLOG_INFO("Skip processing object in Full-sync. Reason: [%s]", entry.skipped);
        continue;
      }
      if (zone == nullptr || zone_id != entry.zone) {
        zone = bulk.add_logical_switches_of_tz();
        zone_id = entry.zone;
        zone->set_transport_zone_id(UUID_ToString(entry.config->transport_zone_id()));
      }
      auto* const info = zone->add_logical_switch_info();
      info->set_logical_switch_id(UUID_ToString(entry.config->id()));
      info->set_name(std::move(*entry.config->mutable_name()));
      info->set_path(std::move(*entry.config->mutable_segment_path()));
      info->set_revision(entry.config->revision());
    }
    if (Outcome sent = SendBulk(bulk); !sent) return sent;
  }
  return Outcome::Done();
}

Outcome DbSvcTaskThread::SendBulk(const LogicalSwitchBulkMsg& bulk) {
  std::string out;
  const timeline::OperationPtr operation =
      timeline::Begin(timeline::Kind::kLogicalSwitch, "part of a full sync", {});
  for (const auto& zone : bulk.logical_switches_of_tz()) {
    for (const auto& info : zone.logical_switch_info()) operation->AddKey(info.logical_switch_id());
  }
  const timeline::Scope scope(operation);
  if (context_->lum.InvokeRPC(LumOperation::kApplyLogicalSwitches, bulk.SerializeAsString(), &out) ==
      LumCommands::kRpcSucceeded) {
    timeline::Finish(operation, {});
    return Outcome::Done();
  }
  timeline::Finish(operation, out.empty() ? "the management proxy refused" : out);
  ZLOG_ERROR("42033", "Logical Switch Full Sync call to zemaLum failed: %s", out.c_str());
  return Outcome::Failed(std::move(out));
}

void DbSvcTaskThread::SyncPending(uint64_t epoch) {
  const Validity validity{epoch, context_->fence.generation()};
  if (IsVoid(epoch)) return;
  if (full_sync_pending_) {
    ZLOG_INFO("Re-scheduling Logical Switch Full sync");
    context_->store->ScheduleFullSyncRead(epoch);
  }
  for (const auto& [uuid, update] : context_->store->pending().Copy()) {
    HandleOpaqueLogSwitchMsg(update, last_barrier_, false, validity);
  }
}

void DbSvcTaskThread::RealizeVifState(const Update& update) {
  store::VifStateMsg state;
  store::VifStateOpMsg op;
  if (!state.ParseFromString(update.object()) || !op.ParseFromString(update.operation()) ||
      !state.has_vif_id() || !op.has_operation()) {
    ZLOG_WARN("Invalid VifStateMsg received. Skipping");
    return;
  }
  const std::string vif = UUID_ToString(state.vif_id());
  if (op.operation() == ObjectOpMsg::DELETE) {
    context_->vif_states.RemoveVif(vif);
  } else if (context_->vif_states.ProcessVif(vif)) {
    ZLOG_INFO("Enqueued a task to CorvdHandler to process VifStateMsg for VIF [%s]", vif.c_str());
  } else {
    ZLOG_INFO("VifRequest does not exist for VIF [%s]. Skipping to process VifStateMsg", vif.c_str());
  }
}

void DbSvcTaskThread::ReplyRealizedHostConfig(const Update& update) {
  store::RealizedHostConfigOpMsg op;
  if (!update.has_operation() || !op.ParseFromString(update.operation()) || !op.has_operation()) {
    ZLOG_WARN("Received RealizedHostConfigMsg with invalid OpMsg");
    return;
  }
  if (op.operation() == ObjectOpMsg::DELETE) {
    store::RealizedHostConfigMsg before;
    std::string uuid;
    if (before.ParseFromString(update.old_object()) && before.has_id()) uuid = UUID_ToString(before.id());
    ZLOG_INFO("Skipping Delete Monitor Cb of RealizedHostConfigMsg, old uuid: [%s]", uuid.c_str());
    return;
  }
  store::RealizedHostConfigMsg stored;
  orlane::zem::switching::HostConfigMsg config;
  std::string correlation_id;
  std::string reply_to;
  if (!stored.ParseFromString(update.object()) ||
      DecodeHostConfigMsg(stored, &config, &correlation_id, &reply_to) != 0) {
    ZLOG_WARN("[%s] a RealizedHostConfigMsg cannot be answered", __func__);
    return;
  }
  if (context_->sender == nullptr || !context_->sender->HostConfigReply(correlation_id, reply_to, config)) {
    ZLOG_WARN("[%s] the host config [%s] was not answered", __func__, config.id().c_str());
  }
}

}  // namespace zem::zema
