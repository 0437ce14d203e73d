#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "app/zema/covedb/covedb_handler.h"
#include "app/zema/lswitch/logical_switch_context.h"
#include "framework/tasks/task_thread.h"
#include "proto/covedb/covedb.pb.h"

namespace orlane::zem::switching {
class LogicalSwitchBulkMsg;
class LogicalSwitchMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// The worker that realizes the store's updates: gathers those of a transaction and, at its end, makes
/// logical switch tasks of them, or tells the host all switches at once.
///
/// The single queue and the store's promise that everything up to a mark has been delivered are what orders a
/// transaction.  While a full sync has failed, increments are given up: the next complete reading holds them.
class DbSvcTaskThread final : public TaskThread {
 public:
  using Update = orlane::zem::covedb::MonitorUpdateMsg;

  DbSvcTaskThread(std::string name, std::shared_ptr<LogicalSwitchContext> context);
  ~DbSvcTaskThread() override;

  // From any thread; what is pending belongs to the store handler and outlives the worker.
  void RemovePendingLs(const std::string& uuid);
  std::vector<std::string> GetPendingLsKeys();
  void ClearPendingLs();

  // By the worker's own thread, from its tasks.
  void AddToCache(Update update, const CovedbOrigin& origin);
  void SetLastBarrier(uint64_t barrier);
  void RealizeLogicalSwitch(const CovedbOrigin& origin);
  void SyncPending(uint64_t epoch);
  void RealizeVifState(const Update& update);
  void ReplyRealizedHostConfig(const Update& update);

  // For the same thread, and for tests while it waits.
  uint64_t last_barrier() const { return last_barrier_; }
  bool full_sync_pending() const { return full_sync_pending_; }

 protected:
  /// Updates change what this worker gathers, so they run on it.
  void Execute(Runnable& task) override;

 private:
  struct FullSync;

  /// What has to hold for an update to become a task.  The generation is read before the epoch is looked at:
  /// a flush in between finds one of the two changed.
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
  bool SendFullSync(FullSync& sync, std::string* error);
  bool SendBulk(const orlane::zem::switching::LogicalSwitchBulkMsg& bulk, std::string* error);
  void AddBarrierTask();

  const std::shared_ptr<LogicalSwitchContext> context_;
  std::list<Update> tx_cache_;
  CovedbOrigin cached_from_;
  uint64_t last_void_ = 0;  // the epoch in which void work was told last
  uint64_t last_barrier_ = 0;
  bool full_sync_pending_ = false;
};

}  // namespace zem::zema
