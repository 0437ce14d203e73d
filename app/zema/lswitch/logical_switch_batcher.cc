#include "app/zema/lswitch/logical_switch_batcher.h"

#include <algorithm>
#include <exception>
#include <iterator>

#include "app/zema/covedb/covedb_handler.h"
#include "app/zema/lswitch/covedb_update_task.h"
#include "app/zema/lswitch/logical_switch_ack_task.h"
#include "app/zema/manager/mpa_message_sender.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/state/host_config_state.h"
#include "app/zema/state/realization_options.h"
#include "app/zema/workers/task_queues.h"
#include "framework/log/log.h"
#include "platform/timeline/operation.h"

// A batch is first planned in chunks and then sent, because only the whole plan shows which chunk is the last
// one of the store; its acknowledgement may carry the barrier.

namespace zem::zema {
namespace {

using wft::WorkflowUtil;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr int32_t kRemovedRevision = -1;
// The separators of a command's list: the first ends a field, the second an entry.
constexpr const char* kFieldEnd = "|";
constexpr const char* kEntryEnd = ",uuid=";

bool IsStore(const std::string& reply_to) { return reply_to == CoveDbHandler::kReplyTo; }

bool IsListable(const std::string& field) {
  return field.find(kFieldEnd) == std::string::npos && field.find(kEntryEnd) == std::string::npos;
}

template <class Acks>
std::vector<std::string> Uuids(const Acks& acks) {
  std::vector<std::string> uuids;
  uuids.reserve(acks.size());
  for (const auto& [uuid, revision] : acks) uuids.push_back(uuid);
  return uuids;
}

}  // namespace

LogicalSwitchMsgTask::Batcher::Batcher(std::shared_ptr<LogicalSwitchContext> context)
    : context_(std::move(context)),
      epoch_(context_->fence.epoch()),
      generation_(context_->fence.generation()),
      manager_generation_(context_->fence.manager_generation()) {}

// Drops the updates gathered before a full sync.  A full sync of the store reports its barrier itself.
void LogicalSwitchMsgTask::Batcher::DropSuperseded() {
  const long gathered = Count();
  const uint64_t manager_present = context_->fence.manager_generation();
  if (const uint64_t present = context_->fence.generation(); generation_ != present) {
    generation_ = present;
    Reset();
  } else if (manager_generation_ != manager_present) {
    const auto of_manager = [](const auto& list) { return !IsStore(list.first); };
    std::erase_if(apply_, of_manager);
    std::erase_if(deletes_, of_manager);
  }
  manager_generation_ = manager_present;
  if (Count() < gathered) {
    ZLOG_INFO("[%s] a full sync has come in between, %ld gathered lists are dropped", __func__,
              gathered - Count());
  }
}

void LogicalSwitchMsgTask::Batcher::TakeBarrier(uint64_t barrier, uint64_t epoch) {
  if (const uint64_t present = context_->fence.epoch(); epoch_ != present) {
    epoch_ = present;
    barrier_ = 0;
  }
  if (epoch == epoch_) barrier_ = std::max(barrier_, barrier);
}

void LogicalSwitchMsgTask::Batcher::AddTask(Runnable* task) {
  auto* const update = dynamic_cast<LogicalSwitchMsgTask*>(task);
  if (update == nullptr) return;
  DropSuperseded();
  if (update->generation_ != (IsStore(update->reply_to_) ? generation_ : manager_generation_)) {
    ZLOG_DEBUG("[%s] an update from before a full sync is dropped", __func__);
    return;
  }
  trace_info_ = update->trace_info_;
  for (auto& [zone, switches] : update->apply_) {
    Switches& gathered = apply_[update->reply_to_][zone];
    for (auto& [uuid, record] : switches) {
      const auto [present, added] = gathered.try_emplace(uuid);
      if (added || present->second.revision < record.revision) present->second = std::move(record);
    }
  }
  if (!update->deletes_.empty()) deletes_[update->reply_to_].merge(update->deletes_);
  senders_[update->reply_to_] = update->sender_;
  TakeBarrier(update->barrier_, update->epoch_);
}

void LogicalSwitchMsgTask::Batcher::Reset() {
  apply_.clear();
  deletes_.clear();
  senders_.clear();
  owes_barrier_ = false;
}

long LogicalSwitchMsgTask::Batcher::Count() const {
  return static_cast<long>(apply_.size() + deletes_.size());
}

void LogicalSwitchMsgTask::Batcher::UpdateBatcher(Runnable* task) {
  const auto* const update = dynamic_cast<const CovedbUpdateTask*>(task);
  if (update == nullptr) {
    ZLOG_ERROR("44098", "[%s] CovedbUpdate task type error\n", __func__);
    return;
  }
  DropSuperseded();
  TakeBarrier(update->barrier(), update->epoch());
  ZLOG_DEBUG("[%s] Batcher updated with barrier: [%llu]\n", __func__,
             static_cast<unsigned long long>(barrier_));
  owes_barrier_ = Count() > 0;
}

void LogicalSwitchMsgTask::Batcher::Run() {
  if (!context_->fence.AwaitArrivals()) return;
  const Synchronizer lock(context_->fence, __FILE__, __LINE__);
  DropSuperseded();
  if (!trace_info_.valid()) return RunLocked();
  const auto span =
      WorkflowUtil::StartChildSpan("LogicalSwitchMsgTask.Batcher.Run", wft::kTraceInfo, trace_info_);
  RunLocked();
}

void LogicalSwitchMsgTask::Batcher::RunLocked() {
  TakeBarrier(0, 0);
  chunks_.clear();
  for (const auto& [reply_to, uuids] : deletes_) DeleteLsInCorvd(reply_to, uuids);
  for (const auto& [reply_to, zones] : apply_) ApplyLsInCorvd(reply_to, zones);
  deleted_in_batch_.clear();

  const auto of_store = [](const Chunk& chunk) { return IsStore(chunk.reply_to); };
  const auto last = std::find_if(chunks_.rbegin(), chunks_.rend(), of_store);
  store_failed_ = false;
  for (const Chunk& chunk : chunks_) Send(chunk, last != chunks_.rend() && &chunk == &*last);
  const bool owes = owes_barrier_ || apply_.count(CoveDbHandler::kReplyTo) != 0 ||
                    deletes_.count(CoveDbHandler::kReplyTo) != 0;
  if (last == chunks_.rend() && owes && barrier_ != 0 && context_->store) {
    context_->store->writer().WriteProcessedBarrier(barrier_);
  }
  owes_barrier_ = false;
  chunks_.clear();
  ReadSkipped();
}

// A switch that the store removed and created again gets onto the host only with another batch, and the store
// does not send it again.
void LogicalSwitchMsgTask::Batcher::ReadSkipped() {
  const std::vector<std::string> skipped = std::exchange(skipped_of_store_, {});
  std::vector<std::string> wanted;
  std::copy_if(skipped.begin(), skipped.end(), std::back_inserter(wanted),
               [this](const std::string& uuid) { return context_->store->pending().Contains(uuid); });
  if (!wanted.empty()) context_->store->ScheduleLsRead(wanted, context_->store->epoch());
}

void LogicalSwitchMsgTask::Batcher::DeleteLsInCorvd(const std::string& reply_to,
                                                    const std::set<std::string>& uuids) {
  const auto limit = static_cast<size_t>(context_->options.Snapshot().opaque_network_delete_max);
  Chunk chunk{reply_to, false};
  for (const std::string& uuid : uuids) {
    if (uuid.find(',') != std::string::npos || !IsListable(uuid)) {
      RefuseLs(reply_to, uuid, uuid);
      continue;
    }
    deleted_in_batch_.insert(uuid);
    if (!chunk.payload.empty()) chunk.payload += ',';
    chunk.payload += "uuid=" + uuid;
    chunk.acks.emplace_back(uuid, kRemovedRevision);
    ++chunk.entries;
    CloseChunk(&chunk, limit);
  }
  CloseChunk(&chunk, 0);
}

void LogicalSwitchMsgTask::Batcher::ApplyLsInCorvd(const std::string& reply_to, const Zones& zones) {
  const auto limit = static_cast<size_t>(context_->options.Snapshot().opaque_network_apply_max);
  Chunk chunk{reply_to, true};
  for (const auto& [zone, switches] : zones) {
    const bool kln = context_->kinds.IsKln(zone);
    for (const auto& [uuid, record] : switches) {
      AddToChunk(zone, kln, uuid, record, &chunk);
      CloseChunk(&chunk, limit);
    }
  }
  CloseChunk(&chunk, 0);
}

void LogicalSwitchMsgTask::Batcher::AddToChunk(const std::string& zone, bool kln, const std::string& uuid,
                                               const Record& record, Chunk* chunk) {
  if (deleted_in_batch_.count(uuid) != 0) {
    ZLOG_INFO("[%s] Skip LS [%s:%d] because it was already deleted in the batch.", "ApplyLsInCorvd",
              uuid.c_str(), record.revision);
    ++chunk->entries;
    if (context_->store && IsStore(chunk->reply_to)) skipped_of_store_.push_back(uuid);
    return;
  }
  if (kln) {
    ZLOG_DEBUG("[%s]: Ignoring to create OpaqueNetwork for LS [%s]", "ApplyLsInCorvd", uuid.c_str());
    chunk->acks.emplace_back(uuid, record.revision);
    return;
  }
  for (const std::string* field : {&uuid, &record.name, &record.path, &zone}) {
    if (!IsListable(*field)) return RefuseLs(chunk->reply_to, uuid, *field);
  }
  ZLOG_DEBUG("[%s] adding LS [%s:%d] to corvd...\n", "ApplyLsInCorvd", uuid.c_str(), record.revision);
  std::string& payload = chunk->payload;
  if (!payload.empty()) payload += ',';
  payload += "uuid=" + uuid + "|name=" + record.name + "|path=" + record.path + "|zone=" + zone +
             "|revision=" + std::to_string(record.revision);
  chunk->acks.emplace_back(uuid, record.revision);
  ++chunk->entries;
}

// Sending the value unchanged would alter how the host reads the neighbouring entries of the list, and a
// retry would not help.
void LogicalSwitchMsgTask::Batcher::RefuseLs(const std::string& reply_to, const std::string& uuid,
                                             const std::string& field) {
  const std::string error = "logical switch " + uuid + " cannot be told to the host: '" + field +
                            "' would end its place in the list";
  ZLOG_ERROR("42033", "[%s] %s\n", __func__, error.c_str());
  if (!context_->store || !IsStore(reply_to)) return;
  context_->store->pending().RemovePendingLs(uuid);
  context_->store->writer().WriteRealizationError(error, {uuid}, 0);
}

// Adds the chunk to the plan when it is full; with a limit of 0, adds it in any case.
void LogicalSwitchMsgTask::Batcher::CloseChunk(Chunk* chunk, size_t limit) {
  if (limit != 0 && chunk->entries < limit) return;
  Chunk next{chunk->reply_to, chunk->is_apply};
  chunk->full = limit != 0;
  if (!chunk->payload.empty() || !chunk->acks.empty()) chunks_.push_back(std::move(*chunk));
  *chunk = std::move(next);
}

void LogicalSwitchMsgTask::Batcher::Send(const Chunk& chunk, bool last_of_store) {
  const uint64_t barrier = last_of_store ? barrier_ : 0;
  const char* const operation = chunk.is_apply ? "ApplyLsInCorvd" : "DeleteLsInCorvd";
  if (chunk.payload.empty()) {
    ZLOG_INFO("[%s] No OpaqueNetworks to configure. Sending an ack for [%lu] LS", operation,
              static_cast<unsigned long>(chunk.acks.size()));
    return SendAck(chunk, barrier, last_of_store);
  }
  if (chunk.full) {
    ZLOG_INFO("[%s] sending chunk of [%d] to zemaLum ...\n", operation, static_cast<int>(chunk.entries));
  } else {
    ZLOG_INFO("[%s] sending [%lu] LS %s to zemaLum ...\n", operation,
              static_cast<unsigned long>(chunk.entries), chunk.is_apply ? "APPLY" : "DELETE");
  }
  const timeline::OperationPtr operation_timeline = timeline::Begin(
      timeline::Kind::kLogicalSwitch,
      std::to_string(chunk.entries) + (chunk.is_apply ? " to make or change" : " to remove"), {});
  for (const auto& [uuid, revision] : chunk.acks) operation_timeline->AddKey(uuid);
  const timeline::Scope scope(operation_timeline);
  const Outcome called = CallLumOpaqueNetwork(chunk.is_apply, chunk.payload);
  timeline::Finish(operation_timeline,
                   !called && called.error().empty() ? "the management proxy refused" : called.error());
  if (called) return SendAck(chunk, barrier, last_of_store);
  if (!context_->store) return;
  store_failed_ = store_failed_ || IsStore(chunk.reply_to);
  const std::vector<std::string> uuids = Uuids(chunk.acks);
  context_->store->writer().WriteRealizationError(called.error(), uuids, barrier);
  context_->store->ScheduleLsRead(uuids, context_->store->epoch());
}

Outcome LogicalSwitchMsgTask::Batcher::CallLumOpaqueNetwork(bool is_apply, const std::string& payload) {
  if (context_->state.del_zem_running) {
    ZLOG_WARN("[%s] did NOT apply logical switch [%s] to corvd because del zem is running\n", __func__,
              payload.c_str());
    return Outcome::Failed("del zem is running");
  }
  const std::string command = (is_apply ? "createOpaqueNetwork(" : "deleteOpaqueNetwork(") + payload + ")";
  std::string reply;
  if (context_->lum.InvokeCommand(command, "ok", &reply) == LumCommands::kSucceeded) {
    ZLOG_INFO("[%s] applied logical switch [%s] to corvd\n", __func__, payload.c_str());
    return Outcome::Done();
  }
  ZLOG_ERROR("42033", "[%s] failed to apply logical switch [%s] to corvd: %s\n", __func__, payload.c_str(),
             reply.c_str());
  return Outcome::Failed(std::move(reply));
}

// The reply-to decides, not the sender: a batch may hold updates of both the manager and the store.
void LogicalSwitchMsgTask::Batcher::SendAck(const Chunk& chunk, uint64_t barrier, bool last_of_store) {
  if (IsStore(chunk.reply_to)) return SendAckToStore(chunk, barrier, last_of_store);
  MpaMessageSender* const sender = senders_[chunk.reply_to];
  if (sender == nullptr) return;
  if (context_->workers.Has(Worker::kLsBatchAck)) {
    for (const auto& [uuid, revision] : chunk.acks) {
      (void)context_->workers.AddTask(Worker::kLsBatchAck, std::make_unique<LogicalSwitchAckTask>(
                                                               uuid, revision, chunk.reply_to, sender));
    }
    ZLOG_INFO("[%s] added [%lu] ackTask to lsBatchAckThread\n", __func__,
              static_cast<unsigned long>(chunk.acks.size()));
    return;
  }
  orlane::zem::switching::LogicalSwitchMsg message;
  for (const auto& [uuid, revision] : chunk.acks) {
    auto* const info = message.add_logical_switch_info();
    info->set_logical_switch_id(uuid);
    info->set_revision(revision);
  }
  try {
    if (sender->LogicalSwitchReply(chunk.reply_to, message)) {
      ZLOG_INFO("[%s] sent a ACK with [%lu] LS to MP\n", __func__,
                static_cast<unsigned long>(chunk.acks.size()));
    }
  } catch (const std::exception& e) {
    ZLOG_ERROR("42034", "[%s] : failed to send ACK message: caught exception [%s]", __func__, e.what());
  }
}

// Writes once for the whole batch.  A status without errors must not overwrite the error that an earlier
// chunk has just written.
void LogicalSwitchMsgTask::Batcher::SendAckToStore(const Chunk& chunk, uint64_t barrier, bool last_of_store) {
  if (!context_->store) return;
  for (const auto& [uuid, revision] : chunk.acks) context_->store->pending().RemoveRealized(uuid, revision);
  if (!last_of_store) return;
  if (!store_failed_) {
    context_->store->writer().WriteRealized(barrier);
  } else if (barrier != 0) {
    context_->store->writer().WriteProcessedBarrier(barrier);
  }
}

}  // namespace zem::zema
