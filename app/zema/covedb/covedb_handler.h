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
#include "covedbclient/covedb_client_interface.h"
#include "framework/tasks/synchronizable.h"
#include "mpaclient/bus/raw_bus_message.h"
#include "platform/core/clock.h"

namespace orlane::zem {
namespace covedb {
class RealizedHostConfigMsg;
}  // namespace covedb
namespace switching {
class HostConfigMsg;
}  // namespace switching
}  // namespace orlane::zem

namespace zem {
class Timer;
class TimerFactory;
}  // namespace zem

namespace zem::zema {

/// What an update of the store asks of the realization.
enum class CovedbUpdateKind {
  kEndOfTransaction = 1,  // what was gathered is complete
  kObject = 2,            // one object
  kSyncPending = 3,       // realize again what is pending
  kProcessedBarrier = 4,  // tell the store how far the realization has come
  kVifState = 5,          // the state of a VIF
};

/// Where an update of the store came from, by which work that has become void is known.
struct CovedbOrigin {
  /// It belongs to a complete reading, or ends one.
  bool full_sync = false;
  /// How many flushes came before it: what is older than the last one must not change the host any more.
  uint64_t epoch = 0;
  /// The connection that it came over.  A transaction that a lost connection has cut is never completed.
  uint64_t connection = 0;

  bool operator==(const CovedbOrigin& other) const {
    return epoch == other.epoch && connection == other.connection;
  }
};

/// All that the realization asks of the store client.
///
/// The monitors' callbacks, the timer and the answers to reads only make tasks and hand them to `enqueue`.
/// While the channel is down writes wait in the client and reads are refused; the full sync after the next
/// connection heals what was missed.
///
/// Ownership: always held by a shared pointer; the client's callbacks hold a weak one, since the client knows
/// no way back from a registration.
///
/// Threads: all operations from any thread; the object's own lock is never held over a call of the client.
class CoveDbHandler final : public Synchronizable, public std::enable_shared_from_this<CoveDbHandler> {
 public:
  /// The realization's number among the modules that watch the store.
  static constexpr uint32_t kModuleId = 2;
  /// Whose logical switches come from the store, and where their acknowledgements go.
  static constexpr const char* kReplyTo = "covedb";

  struct Settings {
    std::shared_ptr<covedb::CoveDbClientInterface> client;
    /// Has to outlive the client's callbacks.
    TimerFactory* timers = nullptr;
    /// `mp.lsDbRetryInterval`, in seconds; asked at each scheduling.
    std::function<int()> retry_interval;
    /// Makes a task of it for the database handler's queue; must not block, and must not call the handler.
    std::function<void(CovedbUpdateKind kind, covedb::MonitorUpdateMsg update, CovedbOrigin origin)> enqueue;
    /// On an edge: carries out what a maintenance mode request asks for, once it is known to be storable. May
    /// wait, and the store with it; empty elsewhere.
    std::function<void(const RawBusMessage& request)> maintenance_action = {};
    /// What has to live until a write is done; may be null.
    std::shared_ptr<void> keep_alive;
  };

  explicit CoveDbHandler(Settings settings);
  ~CoveDbHandler();

  void RegisterChannelStatus();
  /// Again is harmless; after RemoveMonitors everything is read anew.
  void ConfigureMonitors();
  void RemoveMonitors();

  /// Watches again after a flush what was watched before it; nothing otherwise.
  void ResumeMonitors();

  /// Removes what the store holds for this transport node, and forgets what was still to be done with it: on
  /// return nothing of before changes the host any more.  It may wait for commands to the host, so not from a
  /// provider's thread.  `done` is called when the store has carried it out, however long it is away until
  /// then: on a thread of its client, which nothing may hold up.
  void FlushDesiredConfig(std::function<void()> done = nullptr);
  /// Called by a flush; one function at a time.
  void SetOnFlush(std::function<void()> on_flush);
  /// The number of flushes so far.  Work that was made in another epoch is void.
  uint64_t epoch();

  /// What an edge or gateway stores of a message.  0, also for a message that is not stored; -1 otherwise.
  [[nodiscard]] int SaveMessage(const RawBusMessage* message);

  /// A host configuration in the store's form; null, with an error line, when it has none.  For who changes
  /// the message before it is known to be worth storing.
  static std::unique_ptr<orlane::zem::covedb::RealizedHostConfigMsg> EncodeHostConfig(
      const orlane::zem::switching::HostConfigMsg& config);
  /// Stores it with the bus header that the message came with.
  void SaveHostConfig(orlane::zem::covedb::RealizedHostConfigMsg stored, const std::string& header);

  void WriteProcessedBarrier(uint64_t barrier);
  /// Status without errors, and the barrier unless it is 0, which stands for none.
  void WriteRealized(uint64_t barrier);
  /// The error of `uuids` and all that is pending; the barrier as above.
  void WriteRealizationError(const std::string& text, const std::vector<std::string>& uuids,
                             uint64_t barrier);
  /// The end of a full sync: without `error` all is well; `uuids` go out in their order.
  void WriteFullSyncResult(const std::string* error, const std::vector<std::string>& uuids, uint64_t barrier);

  /// Remembers that the switch has to be realized; false when a flush has made that void.
  [[nodiscard]] bool AddPendingLs(const std::string& uuid, covedb::MonitorUpdateMsg update, uint64_t epoch);

  /// Reads everything again after the retry interval.  Of both schedules one timer runs at most: a complete
  /// reading holds what the other would read, so it is never given up for it.  Nothing when the work that
  /// asks is of another epoch.
  void ScheduleFullSyncRead(uint64_t epoch);
  void ScheduleLsRead(const std::vector<std::string>& uuids, uint64_t epoch);

  /// While false, updates of logical switches and barriers are dropped.
  void SetLsRealizationViaCcp(bool on);

  PendingLogicalSwitches& pending() { return pending_; }
  bool channel_up();
  bool initial_sync_done();

 private:
  using Objects = std::list<covedb::TypedObjectMsg>;
  enum class Read { kNone, kPending, kAll };

  void OnChannelStatus(bool up);
  void OnUpdate(const covedb::MonitorUpdateMsg& update);
  // By object type; `via_ccp` when logical switches are taken from the store.
  void OnSwitchObject(const covedb::MonitorUpdateMsg& update, const CovedbOrigin& origin, bool via_ccp);
  void OnRealizedHostConfig(const covedb::MonitorUpdateMsg& update, const CovedbOrigin& origin, bool via_ccp);
  void OnVifState(const covedb::MonitorUpdateMsg& update, const CovedbOrigin& origin, bool via_ccp);
  void OnBarrier();
  bool Configure(bool add);
  void Schedule(Read read, Duration delay);
  void OnTimer(uint64_t schedule);
  void ReadAll(uint64_t epoch);
  void ReadPending(const std::set<std::string>& uuids, uint64_t epoch);
  void HandleFullSyncCallback(const Objects& objects, const rpc::Status& status, uint64_t epoch);
  void HandleLogicalSwitchMsgCallback(const Objects& objects, const rpc::Status& status, uint64_t epoch);
  bool IsVoid(const char* operation, uint64_t epoch);
  void Modify(covedb::ModifyRequestMsg request);
  void Modify(std::list<covedb::ModifyRequestMsg> requests);

  const Settings settings_;
  PendingLogicalSwitches pending_;
  // Held while updates are handed over, so that a reading's stay together; taken before the object's own
  // lock.
  std::mutex hand_over_;
  // The object's own lock guards what follows.
  bool channel_up_ = false;
  bool initial_sync_done_ = false;
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
  TimePoint full_sync_limit_;  // no later than this, however often it is scheduled again
  std::set<std::string> uuids_to_read_;
};

}  // namespace zem::zema
