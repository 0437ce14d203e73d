#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "app/zema/covedb/covedb_handler.h"
#include "app/zema/lswitch/logical_switch_context.h"
#include "framework/tasks/outcome.h"
#include "framework/tasks/task_thread.h"
#include "proto/covedb/covedb.pb.h"

namespace orlane::zem::switching {
class LogicalSwitchBulkMsg;
class LogicalSwitchMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// The worker that realizes the store's updates: it gathers the updates of a transaction and, at the
/// transaction's end, makes logical switch tasks of them, or sends all switches to the host at once.
///
/// Transactions stay in order because there is a single queue and because the store guarantees that
/// everything up to a mark has been delivered.  After a failed full sync, increments are dropped: the next
/// complete reading contains them.
class DbSvcTaskThread final : public TaskThread {
 public:
  using Update = orlane::zem::covedb::MonitorUpdateMsg;

  DbSvcTaskThread(std::string name, std::shared_ptr<LogicalSwitchContext> context);
  ~DbSvcTaskThread() override;

  // May be called from any thread; the pending switches belong to the store handler and outlive the worker.
  void RemovePendingLs(const std::string& uuid);
  std::vector<std::string> GetPendingLsKeys();
  void ClearPendingLs();

  // Called on the worker's own thread, from its tasks.
  void AddToCache(Update update, const CovedbOrigin& origin);
  void SetLastBarrier(uint64_t barrier);
  void RealizeLogicalSwitch(const CovedbOrigin& origin);
  void SyncPending(uint64_t epoch);
  void RealizeVifState(const Update& update);
  void ReplyRealizedHostConfig(const Update& update);

  // For the worker's own thread, and for tests while the worker is idle.
  uint64_t last_barrier() const { return last_barrier_; }
  bool full_sync_pending() const { return full_sync_pending_; }

 protected:
  /// Runs updates on this worker, because they change what it gathers.
  void Execute(Runnable& task) override;

 private:
  struct FullSync;

  /// The conditions under which an update becomes a task.  The generation is read before the epoch is
  /// checked, so that a flush in between changes at least one of the two.
  struct Validity {
    uint64_t epoch;
    uint64_t generation;
  };

  bool IsVoid(uint64_t epoch);
  void DropCut(const CovedbOrigin& origin);
  void ProcessLogicalSwitchMsg(uint64_t barrier, const Validity& validity);
  bool HandleOpaqueLogSwitchMsg(const Update& update, uint64_t barrier, bool remember,
                                const Validity& validity);
  bool QueueLogicalSwitch(const orlane::zem::switching::LogicalSwitchMsg& message, const std::string& uuid,
                          uint64_t barrier, uint64_t generation);
  void ProcessLogicalSwitchFullSyncMsg(uint64_t barrier, uint64_t epoch);
  FullSync ReadCache();
  Outcome SendFullSync(FullSync& sync);
  Outcome SendBulk(const orlane::zem::switching::LogicalSwitchBulkMsg& bulk);
  void AddBarrierTask();

  const std::shared_ptr<LogicalSwitchContext> context_;
  std::list<Update> tx_cache_;
  CovedbOrigin cached_from_;
  uint64_t last_void_ = 0;  // the epoch for which void work was last logged
  uint64_t last_barrier_ = 0;
  bool full_sync_pending_ = false;
};

}  // namespace zem::zema
