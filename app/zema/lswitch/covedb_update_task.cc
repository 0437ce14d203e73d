#include "app/zema/lswitch/covedb_update_task.h"

#include <utility>

#include "app/zema/lswitch/db_svc_task_thread.h"
#include "app/zema/workers/worker_table.h"
#include "framework/log/log.h"
#include "platform/core/thread_name.h"
#include "proto/covedb/runtime_objects.pb.h"

namespace zem::zema {
namespace {

using orlane::zem::covedb::ObjectType;

constexpr LogSource kLog{"tarvik", "zema"};

// Names the thread only once, because a reading of the store makes ten thousand tasks.
void NameThread() {
  thread_local const bool named = [] {
    SetThreadName("zema:dbUpdateTask");
    return true;
  }();
  (void)named;
}

}  // namespace

CovedbUpdateTask::CovedbUpdateTask(CovedbUpdateKind kind, Update update, CovedbOrigin origin)
    : MpaMessageTask(nullptr, "", "", std::move(update)), kind_(kind), origin_(origin) {}

CovedbUpdateTask::CovedbUpdateTask(std::shared_ptr<CoveDbHandler> store, uint64_t barrier, uint64_t epoch)
    : MpaMessageTask(nullptr, "", "", Update()),
      kind_(CovedbUpdateKind::kProcessedBarrier),
      store_(std::move(store)),
      barrier_(barrier),
      epoch_(epoch) {}

void CovedbUpdateTask::Run() {
  NameThread();
  if (kind_ != CovedbUpdateKind::kProcessedBarrier) {
    ZLOG_ERROR("44098", "[%s] kind %d of CovedbUpdate belongs to databaseHandlerThread", __func__,
               static_cast<int>(kind_));
    return;
  }
  if (store_ && barrier_ != 0) store_->writer().WriteProcessedBarrier(barrier_);
}

void CovedbUpdateTask::RunOn(DbSvcTaskThread& thread) {
  switch (kind_) {
    case CovedbUpdateKind::kEndOfTransaction:
      NameThread();
      return thread.RealizeLogicalSwitch(origin_);
    case CovedbUpdateKind::kSyncPending:
      NameThread();
      return thread.SyncPending(origin_.epoch);
    case CovedbUpdateKind::kObject:
    case CovedbUpdateKind::kVifState:
      NameThread();
      return RunObject(thread);
    case CovedbUpdateKind::kProcessedBarrier:
      return Run();
  }
}

void CovedbUpdateTask::RunObject(DbSvcTaskThread& thread) {
  switch (message_.object_type()) {
    case ObjectType::TRANSPORT_NODE_CONFIG:
      if (!origin_.full_sync) return;
      ZLOG_DEBUG("[%s] Adding a TN Config message to cache", "Run");
      return thread.AddToCache(std::move(message_), origin_);
    case ObjectType::OPAQUE_LOG_SWITCH_CONFIG:
      return thread.AddToCache(std::move(message_), origin_);
    case ObjectType::VIF_STATE:
      return thread.RealizeVifState(message_);
    case ObjectType::REALIZED_HOST_CONFIG:
      return thread.ReplyRealizedHostConfig(message_);
    case ObjectType::BARRIER: {
      orlane::zem::covedb::BarrierMsg barrier;
      const bool valid = barrier.ParseFromString(message_.object()) && barrier.has_value();
      return thread.SetLastBarrier(valid ? barrier.value() : 0);
    }
    default:
      ZLOG_ERROR("44096", "Invalid object type");
  }
}

void EnqueueCovedbUpdate(WorkerTable& workers, CovedbUpdateKind kind, CovedbUpdateTask::Update update,
                         CovedbOrigin origin) {
  const ObjectType type = update.object_type();
  // An update that is only gathered can wait until its transaction ends; waking the worker for each of ten
  // thousand objects costs more than handling them.
  const bool gathered =
      type == ObjectType::OPAQUE_LOG_SWITCH_CONFIG || type == ObjectType::TRANSPORT_NODE_CONFIG;
  auto task = std::make_unique<CovedbUpdateTask>(kind, std::move(update), origin);
  const bool queued = gathered ? workers.AddTaskAsleep(Worker::kDatabaseHandler, std::move(task))
                               : workers.AddTask(Worker::kDatabaseHandler, std::move(task));
  if (!queued) {  // always the case on an edge
    ZLOG_DEBUG("[%s] an update of type %d is dropped because of no databaseHandlerThread", __func__,
               static_cast<int>(type));
  }
}

}  // namespace zem::zema
