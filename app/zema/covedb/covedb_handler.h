#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "app/zema/covedb/pending_logical_switches.h"
#include "app/zema/covedb/store_writer.h"
#include "covedbclient/covedb_client_interface.h"
#include "framework/tasks/synchronizable.h"
#include "mpaclient/bus/raw_bus_message.h"
#include "platform/core/clock.h"

namespace zem {
class Timer;
class TimerFactory;
}  // namespace zem

namespace zem::zema {

/// What the realization has to do with an update of the store.
enum class CovedbUpdateKind {
  kEndOfTransaction = 1,  // the transaction's updates are complete
  kObject = 2,            // one object
  kSyncPending = 3,       // realize the pending switches again
  kProcessedBarrier = 4,  // report to the store how far the realization has come
  kVifState = 5,          // the state of a VIF
};

/// The origin of an update of the store, from which void work is recognised.
struct CovedbOrigin {
  /// The update belongs to a complete reading, or ends one.
  bool full_sync = false;
  /// The number of flushes before the update: an update from before the last flush must not change the host.
  uint64_t epoch = 0;
  /// The connection that delivered the update.  A transaction cut off by a lost connection is never
  /// completed.
  uint64_t connection = 0;

  bool operator==(const CovedbOrigin& other) const {
    return epoch == other.epoch && connection == other.connection;
  }
};

/// The realization's only access to the store client.
///
/// The monitors' callbacks, the timer and the answers to reads only make tasks and pass them to `enqueue`.
/// While the channel is down, writes wait in the client and reads are refused; the full sync after the next
/// connection makes up for missed updates.
///
/// Ownership: always held by a shared pointer; the client's callbacks hold a weak one, because a callback
/// cannot be unregistered from the client.
///
/// Threads: all operations from any thread; the object's own lock is never held while the client is called.
class CoveDbHandler final : public Synchronizable, public std::enable_shared_from_this<CoveDbHandler> {
 public:
  /// The realization's number among the modules that monitor the store.
  static constexpr uint32_t kModuleId = 2;
  /// The reply-to of logical switches that come from the store; their acknowledgements are written to the
  /// store.
  static constexpr const char* kReplyTo = "covedb";

  struct Settings {
    std::shared_ptr<covedb::CoveDbClientInterface> client;
    /// Has to outlive the client's callbacks.
    TimerFactory* timers = nullptr;
    /// `mp.lsDbRetryInterval`, in seconds; read at each scheduling.
    std::function<int()> retry_interval;
    /// Queues the update as a task of the database handler; must not block and must not call this object.
    std::function<void(CovedbUpdateKind kind, covedb::MonitorUpdateMsg update, CovedbOrigin origin)> enqueue;
    /// On an edge: carries out a maintenance mode request once it is known that the request can be stored.
    /// It may wait, which delays the write to the store.  Empty elsewhere.
    std::function<void(const RawBusMessage& request)> maintenance_action = {};
    /// An object that has to live until a write is done; may be null.
    std::shared_ptr<void> keep_alive;
  };

  explicit CoveDbHandler(Settings settings);
  ~CoveDbHandler();

  void RegisterChannelStatus();
  /// Starts monitoring the store.  Calling it twice has no effect; after RemoveMonitors everything is read
  /// again.
  void ConfigureMonitors();
  void RemoveMonitors();

  /// Resumes, after a flush, the monitoring that the flush ended; otherwise does nothing.
  void ResumeMonitors();

  /// Removes what the store holds for this transport node and discards pending work: after the return, no
  /// earlier update changes the host.  The call may wait for commands to the host, so it must not be made
  /// from a provider's thread.  `done` is called when the store has carried out the removal, however long the
  /// store is away; it runs on a thread of the client and must not block.
  void FlushDesiredConfig(std::function<void()> done = nullptr);
  /// Sets the function that a flush calls; there is one at a time.
  void SetOnFlush(std::function<void()> on_flush);
  /// The number of flushes so far.  Work from another epoch is void.
  uint64_t epoch();

  /// Records that the switch has to be realized; returns false when a flush has made the update void.
  [[nodiscard]] bool AddPendingLs(const std::string& uuid, covedb::MonitorUpdateMsg update, uint64_t epoch);

  /// Schedules a complete reading after the retry interval.  At most one timer runs for both kinds of
  /// reading: a complete reading includes what the other kind would read, so it is never replaced by the
  /// other kind.  Does nothing when `epoch` is not the current one.
  void ScheduleFullSyncRead(uint64_t epoch);
  void ScheduleLsRead(const std::vector<std::string>& uuids, uint64_t epoch);

  /// While switched off, updates of logical switches and barriers are dropped.
  void SetLsRealizationViaCcp(bool on);

  PendingLogicalSwitches& pending() { return pending_; }
  /// What the realization writes to the store.
  StoreWriter& writer() { return writer_; }
  bool channel_up();
  bool initial_sync_done();

 private:
  using Objects = std::list<covedb::TypedObjectMsg>;
  enum class Read { kNone, kPending, kAll };

  void OnChannelStatus(bool up);
  void OnUpdate(const covedb::MonitorUpdateMsg& update);
  // Handles an update by its object type; `via_ccp` when logical switches are taken from the store.
  void OnSwitchObject(const covedb::MonitorUpdateMsg& update, const CovedbOrigin& origin, bool via_ccp);
  void OnRealizedHostConfig(const covedb::MonitorUpdateMsg& update, const CovedbOrigin& origin, bool via_ccp);
  void OnVifState(const covedb::MonitorUpdateMsg& update, const CovedbOrigin& origin, bool via_ccp);
  void OnBarrier();
  bool Configure(bool add);
  void ReadBarrier();
  void Schedule(Read read, Duration delay);
  void OnTimer(uint64_t schedule);
  void ReadAll(uint64_t epoch);
  void ReadPending(const std::set<std::string>& uuids, uint64_t epoch);
  void HandleFullSyncCallback(const Objects& objects, const rpc::Status& status, uint64_t epoch);
  void HandleLogicalSwitchMsgCallback(const Objects& objects, const rpc::Status& status, uint64_t epoch);
  bool IsVoid(const char* operation, uint64_t epoch);

  const Settings settings_;
  PendingLogicalSwitches pending_;
  StoreWriter writer_;
  // Held while updates are handed over, so that the updates of one reading stay together; locked before the
  // object's own lock.
  std::mutex hand_over_;
  // The object's own lock guards what follows.
  bool channel_up_ = false;
  bool initial_sync_done_ = false;
  bool switches_begun_ = false;  // the reading has brought a switch or the node
  bool ls_realization_via_ccp_ = true;
  bool monitored_ = false;
  bool enabled_ = false;
  uint64_t epoch_ = 0;
  uint64_t connection_ = 0;
  bool flushed_ = false;  // the monitors were taken away by a flush
  std::function<void()> on_flush_;
  std::shared_ptr<Timer> timer_;
  Read scheduled_ = Read::kNone;
  uint64_t schedule_ = 0;      // a timer that fires too late finds another number
  TimePoint full_sync_limit_;  // the latest time, however often the reading is scheduled again
  std::set<std::string> uuids_to_read_;
};

}  // namespace zem::zema
