#pragma once

#include <cstdint>
#include <memory>

#include "app/zema/covedb/covedb_handler.h"
#include "app/zema/manager/mpa_message_task.h"
#include "proto/covedb/covedb.pb.h"

namespace zem::zema {

class DbSvcTaskThread;
class WorkerTable;

/// One step of the store's stream of updates.  All kinds run on the database handler, except the processed
/// barrier, which keeps its place among the tasks of the logical switch worker.
class CovedbUpdateTask final : public MpaMessageTask<orlane::zem::covedb::MonitorUpdateMsg> {
 public:
  using Update = orlane::zem::covedb::MonitorUpdateMsg;

  CovedbUpdateTask(CovedbUpdateKind kind, Update update, CovedbOrigin origin);
  /// Makes a processed barrier.
  CovedbUpdateTask(std::shared_ptr<CoveDbHandler> store, uint64_t barrier, uint64_t epoch);

  bool IsBatchable() const override { return false; }
  /// Handles the processed barrier, which runs on any worker.  Every other kind needs the database handler;
  /// Run then logs an error.
  void Run() override;
  /// Handles any kind, on the database handler.
  void RunOn(DbSvcTaskThread& thread);

  CovedbUpdateKind kind() const { return kind_; }
  uint64_t barrier() const { return barrier_; }
  /// The store's count of barriers to which this one belongs.
  uint64_t epoch() const { return epoch_; }

 private:
  void RunObject(DbSvcTaskThread& thread);

  const CovedbUpdateKind kind_;
  const CovedbOrigin origin_;
  const std::shared_ptr<CoveDbHandler> store_;
  const uint64_t barrier_ = 0;
  const uint64_t epoch_ = 0;
};

/// For `CoveDbHandler::Settings::enqueue`: queues the update on the table's database handler.
void EnqueueCovedbUpdate(WorkerTable& workers, CovedbUpdateKind kind,
                         orlane::zem::covedb::MonitorUpdateMsg update, CovedbOrigin origin);

}  // namespace zem::zema
