#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "mpaclient/bus/bus_connection.h"
#include "mpaclient/mp_stub.h"
#include "mpaclient/proxy/spread_delay.h"
#include "platform/core/retry_policy.h"

namespace zem {

class AppInit;
class MpaClientAppSpecific;
class TnProxyClientCommon;

/// The stubs of one vertical: one for each APH, made with spread-out delays and retries, following the list
/// of APHs and the master.
///
/// A running stub creation and a change of the list meet at the in-flight set: while a change is pending, a
/// stub that arrives is dropped, and the change waits, looking again every 500 ms, until no creation is under
/// way.  So no stub of an old list survives into the new one, and no APH is forgotten between the two.
///
/// Threads: all operations from any thread; callbacks and timers run on the forwarding provider.
/// Locks: update mutex, then app-init lock or stub lock, then APH map lock.  No lock is held while a vertical
/// is called.
class StubMap {
 public:
  /// What the stubs of a vertical work with.  `owner` keeps everything else alive: timers and callbacks do
  /// nothing when it has gone.
  struct Peers {
    std::weak_ptr<void> owner;
    MpStubSource& source;
    AppInit& app_init;
    BusConnection& connection;
    MpaClientAppSpecific& app_specific;
    std::shared_ptr<TnProxyClientCommon> proxy_client;
    AsioZemProvider& provider;
  };

  StubMap(std::string app_type, std::string app_id, Peers peers);
  ~StubMap();

  /// Follows the proxy client's list of APHs; `uuid_callback` gets the transport node's id, unless it is
  /// empty.
  void updateStubMap(const std::function<void(const std::string&)>& uuid_callback);
  /// Drops all stubs and the calls that wait for an answer.
  void CleanUpForStubs();
  /// Stops waiting for creations that are under way.
  void CancelUpdate();

  /// The stub of an APH, or of the master when `aph` is empty; null when there is none.
  std::shared_ptr<MpStub> FindStub(const std::string& aph) const;
  bool IsMasterStubMissing() const;
  /// Empty when there is no master.
  std::string MasterAph() const;
  std::map<std::string, bool> Aphs() const;

  /// What the map holds now, for tests and diagnosis.
  struct Snapshot {
    std::vector<std::string> stubs;
    size_t in_flight;
    size_t timers;
    bool update_pending;
    bool master_stub;
    std::string master;
  };
  Snapshot snapshot() const;

 private:
  using Stubs = std::unordered_map<std::string, std::shared_ptr<MpStub>>;

  void ClearTimerMap(const std::map<std::string, bool>& kept);
  void DropTimersBut(const std::map<std::string, bool>& kept);
  /// What a new list means for the vertical.
  struct Due {
    bool close = false;      // the APH that served it has left the list
    bool handshake = false;  // there is a new master, and it has a stub
  };
  void Update();
  Due PerformUpdateStubMap();
  bool WaitForInfightStubCreateRequest();
  Due ApplyNewMaps(const std::map<std::string, bool>& old_map, const std::map<std::string, bool>& new_map);
  void NewMaster(const std::string& aph);
  void LoseMasterStub();
  void ScheduleStubCreation(const std::string& aph, int64_t delay_ms);
  void ScheduleStubCreationWithLock(const std::string& aph, int64_t delay_ms);
  void AddStubTimer(const std::string& aph, int64_t delay_ms);
  void GetStubFromTimer(const std::string& aph);
  void GetStub(const std::string& aph);
  void StubCreateDone(const std::string& aph, std::unique_ptr<MpStub> stub, const rpc::Status& status);
  void StubCreateFailed(const std::string& aph);
  void OnStreamDown(const std::string& aph, rpc::CloseReason reason);
  /// The first in map order; empty when there is no master.
  static std::string FirstMaster(const std::map<std::string, bool>& aphs);
  bool IsMaster(const std::string& aph) const;
  int64_t SpreadDelay(uint64_t range_ms) const;

  const std::string app_type_;
  const std::string app_id_;
  const Peers peers_;

  std::mutex update_mutex_;  // serializes changes of the stub map

  mutable std::shared_mutex stub_mutex_;  // guards what follows
  Stubs stub_map_;
  std::unordered_set<std::string> in_flight_;
  std::unordered_map<std::string, std::shared_ptr<Timer>> timer_map_;
  std::unordered_map<std::string, RetryPolicy> retry_policies_;
  bool update_stub_pending_ = false;
  bool master_stub_ = false;
  RetryCountdown retry_countdown_;
  std::shared_ptr<Timer> reschedule_timer_;

  mutable std::shared_mutex aph_mutex_;  // guards the map; the innermost lock
  std::map<std::string, bool> aph_map_;
};

}  // namespace zem
