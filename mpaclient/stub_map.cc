#include "mpaclient/stub_map.h"

#include "framework/log/log.h"
#include "mpaclient/app_init.h"
#include "mpaclient/mpa_client_app_specific.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"

namespace zem {
namespace {

constexpr LogSource kLog{"mpa-client"};

constexpr int64_t kRescheduleMs = 500;
constexpr int64_t kStubTimeoutMs = 10000;

RetryPolicy StubRetryPolicy() { return RetryPolicy(1000, 10000, 2.0, -1); }

// The RPC library makes one attempt; the retry policy of the APH decides on further ones.
RetryPolicy SingleTry() { return RetryPolicy(1000000, 10000000, 2.0, 0); }

}  // namespace

StubMap::StubMap(std::string app_type, std::string app_id, Peers peers)
    : app_type_(std::move(app_type)), app_id_(std::move(app_id)), peers_(std::move(peers)) {}

StubMap::~StubMap() = default;

void StubMap::CancelUpdate() {
  const std::lock_guard lock(stub_mutex_);
  if (reschedule_timer_) reschedule_timer_->Cancel();
}

std::string StubMap::FirstMaster(const std::map<std::string, bool>& aphs) {
  for (const auto& [aph, is_master] : aphs) {
    if (is_master) return aph;
  }
  return {};
}

std::string StubMap::MasterAph() const {
  std::string master;
  {
    std::shared_lock lock(aph_mutex_);
    master = FirstMaster(aph_map_);
  }
  ZLOG_DEBUG("MasterAph uuid : %s.", master.c_str());
  return master;
}

bool StubMap::IsMaster(const std::string& aph) const { return aph == MasterAph(); }

bool StubMap::IsMasterStubMissing() const {
  std::shared_lock lock(stub_mutex_);
  return !master_stub_;
}

std::map<std::string, bool> StubMap::Aphs() const {
  std::shared_lock lock(aph_mutex_);
  return aph_map_;
}

std::shared_ptr<MpStub> StubMap::FindStub(const std::string& aph) const {
  const char* const name = app_type_.c_str();
  const bool master = aph.empty();
  const std::string id = master ? MasterAph() : aph;
  if (master) {
    ZLOG_DEBUG("[%s] getMPStubs Begin", name);
  } else {
    ZLOG_DEBUG("[%s] getAphStub Aph: (%s)", name, id.c_str());
  }
  std::shared_ptr<MpStub> stub;
  {
    std::shared_lock lock(stub_mutex_);
    const auto found = stub_map_.find(id);
    if (found != stub_map_.end()) stub = found->second;
  }
  if (!master) {
    ZLOG_DEBUG("[%s] getAphStub End, Aph: (%s), exist (%s)", name, id.c_str(), stub ? "true" : "false");
  } else if (!stub) {
    ZLOG_WARN("[%s] getMPStubs No stub present for APH (%s)", name, id.c_str());
  }
  return stub;
}

StubMap::Snapshot StubMap::snapshot() const {
  Snapshot snapshot;
  snapshot.master = MasterAph();
  std::shared_lock lock(stub_mutex_);
  for (const auto& [aph, stub] : stub_map_) snapshot.stubs.push_back(aph);
  snapshot.in_flight = in_flight_.size();
  snapshot.timers = timer_map_.size();
  snapshot.update_pending = update_stub_pending_;
  snapshot.master_stub = master_stub_;
  return snapshot;
}

void StubMap::CleanUpForStubs() {
  ZLOG_INFO("[%s] CleanUpForStubs", app_type_.c_str());
  Stubs dropped;  // closed after the lock
  {
    std::lock_guard lock(stub_mutex_);
    master_stub_ = false;
    ClearTimerMap({});
    dropped.swap(stub_map_);
    retry_countdown_.Reset();
  }
  peers_.app_specific.calls().PurgeCallHandleMap();
  ZLOG_INFO("[%s] CleanUpForStubs Done", app_type_.c_str());
}

// With the stub lock held.  The timers of the APHs in `kept` continue: if each list restarted them, lists
// that arrive faster than the shortest delay would prevent every stub from being made.
void StubMap::ClearTimerMap(const std::map<std::string, bool>& kept) {
  ZLOG_INFO("[%s] ClearTimerMap (%lu)", app_type_.c_str(), static_cast<unsigned long>(timer_map_.size()));
  for (const auto& [aph, timer] : timer_map_) in_flight_.erase(aph);
  DropTimersBut(kept);
}

// With the stub lock held.
void StubMap::DropTimersBut(const std::map<std::string, bool>& kept) {
  for (auto entry = timer_map_.begin(); entry != timer_map_.end();) {
    if (kept.contains(entry->first)) {
      ++entry;
      continue;
    }
    entry->second->Cancel();
    entry = timer_map_.erase(entry);
  }
}

void StubMap::updateStubMap(const std::function<void(const std::string&)>& uuid_callback) {
  const char* const name = app_type_.c_str();
  {
    std::lock_guard update_lock(update_mutex_);
    ZLOG_DEBUG("[%s] updateStubMap", name);
    const auto listed = peers_.proxy_client ? peers_.proxy_client->aphs() : std::map<std::string, bool>();
    std::lock_guard lock(stub_mutex_);
    if (update_stub_pending_) {
      ZLOG_INFO("[%s] updateStubMap: Already Pending", name);
      return;
    }
    ZLOG_INFO("[%s] cleaning up for stubs", name);
    update_stub_pending_ = true;
    ClearTimerMap(listed);
    retry_countdown_.Reset();
  }
  // While the update is pending, other changes return early.
  if (uuid_callback && peers_.proxy_client) uuid_callback(peers_.proxy_client->getTnUuidStr());
  Update();
}

// The vertical is notified after the update mutex is released, because its callback may send or take long.
void StubMap::Update() {
  Due due;
  {
    std::lock_guard update_lock(update_mutex_);
    due = PerformUpdateStubMap();
  }
  if (due.close) peers_.app_specific.SendCloseToServedVertical(0);
  if (!due.handshake) return;
  peers_.connection.SetRoad(BusConnection::kConnected);
  peers_.app_init.AppInitHandshake();
}

bool StubMap::WaitForInfightStubCreateRequest() {
  const char* const name = app_type_.c_str();
  ZLOG_INFO("[%s] WaitForInfightStubCreateRequest", name);
  std::shared_lock lock(stub_mutex_);
  if (in_flight_.empty()) return false;
  ZLOG_INFO("[%s] Waiting for (%lu) stub creation request(s) to finish.", name,
            static_cast<unsigned long>(in_flight_.size()));
  for (const std::string& aph : in_flight_) {
    ZLOG_INFO("[%s] stub-creation pending for APH (%s)", name, aph.c_str());
  }
  return true;
}

// With the update mutex held.
StubMap::Due StubMap::PerformUpdateStubMap() {
  const char* const name = app_type_.c_str();
  if (WaitForInfightStubCreateRequest()) {
    ZLOG_INFO("[%s] performUpdateStubMap: Re-scheduling self on provider thread", name);
    auto timer = peers_.provider.timers().Schedule(
        std::chrono::milliseconds(kRescheduleMs), [this, owner = peers_.owner] {
          const auto alive = owner.lock();
          if (!alive) {
            ZLOG_WARN("performUpdateStubMapCb: MpaClientPrivate has been destroyed already");
            return;
          }
          Update();
        });
    std::lock_guard lock(stub_mutex_);
    reschedule_timer_ = std::move(timer);
    return {};
  }
  {
    std::lock_guard lock(stub_mutex_);
    update_stub_pending_ = false;
  }
  const auto new_map = peers_.proxy_client ? peers_.proxy_client->aphs() : std::map<std::string, bool>();
  std::map<std::string, bool> old_map;
  {
    std::lock_guard lock(aph_mutex_);
    old_map = std::exchange(aph_map_, new_map);
  }
  const Due due = ApplyNewMaps(old_map, new_map);
  ZLOG_DEBUG("[%s] performUpdateStubMap End", name);
  return due;
}

void StubMap::NewMaster(const std::string& aph) {
  ZLOG_INFO("[%s] performUpdateStubMap: New Master APH (%s)", app_type_.c_str(), aph.c_str());
  peers_.app_init.GetNewAppInitSequenceNumber();
  peers_.app_init.ForgetCompletion();
  LoseMasterStub();
}

// Until the new master has a stub, the client is in the state of a client that has just started.
void StubMap::LoseMasterStub() {
  {
    std::lock_guard lock(stub_mutex_);
    master_stub_ = false;
  }
  peers_.connection.SetRoad(BusConnection::kDisconnected);
}

StubMap::Due StubMap::ApplyNewMaps(const std::map<std::string, bool>& old_map,
                                   const std::map<std::string, bool>& new_map) {
  const char* const name = app_type_.c_str();
  Due due;
  for (const auto& [aph, was_master] : old_map) {
    if (new_map.count(aph) != 0) continue;
    // A stub that is dropped here does not report the end of its stream.
    if (peers_.app_init.IsServing(aph)) due.close = true;
    std::shared_ptr<MpStub> dropped;
    std::lock_guard lock(stub_mutex_);
    const auto stub = stub_map_.find(aph);
    if (stub != stub_map_.end()) {
      ZLOG_INFO("[%s] performUpdateStubMap: Removing stub for APH (%s)", name, aph.c_str());
      dropped = std::move(stub->second);
      stub_map_.erase(stub);
      if (was_master) master_stub_ = false;
    }
    retry_policies_.erase(aph);
  }
  {
    // The list may have changed again since this update began.
    std::lock_guard lock(stub_mutex_);
    DropTimersBut(new_map);
  }
  const std::string master = MasterAph();
  const std::string old_master = FirstMaster(old_map);
  if (master.empty()) LoseMasterStub();
  for (const auto& [aph, flag] : new_map) {
    const bool is_master = aph == master;
    bool has_stub = false;
    {
      std::shared_lock lock(stub_mutex_);
      has_stub = stub_map_.count(aph) != 0;
    }
    if (!has_stub) {
      if (is_master) NewMaster(aph);
      const int64_t delay_ms = SpreadDelay(kFirstStubSpreadMs);
      std::lock_guard lock(stub_mutex_);
      retry_policies_.try_emplace(aph, StubRetryPolicy());
      if (timer_map_.contains(aph)) continue;
      ZLOG_INFO("[%s] performUpdateStubMap: scheduling Stub creation for APH (%s) with delay (%lld)", name,
                aph.c_str(), static_cast<long long>(delay_ms));
      ScheduleStubCreationWithLock(aph, delay_ms);
    } else if (is_master) {
      if (aph != old_master) {
        NewMaster(aph);
        due.handshake = true;
      } else {
        ZLOG_INFO("[%s] performUpdateStubMap: No Mastership change.", name);
      }
    }
  }
  if (due.handshake) {
    // The new master's stub exists already, so no stub creation will set the flag.
    std::lock_guard lock(stub_mutex_);
    master_stub_ = true;
  }
  return due;
}

void StubMap::ScheduleStubCreation(const std::string& aph, int64_t delay_ms) {
  ZLOG_INFO("[%s] ScheduleStubCreation : delay (%lld)", app_type_.c_str(), static_cast<long long>(delay_ms));
  std::lock_guard lock(stub_mutex_);
  AddStubTimer(aph, delay_ms);
}

void StubMap::ScheduleStubCreationWithLock(const std::string& aph, int64_t delay_ms) {
  ZLOG_INFO("[%s] ScheduleStubCreationWithLock : delay (%lld)", app_type_.c_str(),
            static_cast<long long>(delay_ms));
  AddStubTimer(aph, delay_ms);
}

void StubMap::AddStubTimer(const std::string& aph, int64_t delay_ms) {
  auto& timer = timer_map_[aph];
  if (timer) timer->Cancel();
  timer = peers_.provider.timers().Schedule(std::chrono::milliseconds(delay_ms),
                                            [this, owner = peers_.owner, aph] {
                                              if (const auto alive = owner.lock()) {
                                                GetStubFromTimer(aph);
                                              } else {
                                                ZLOG_WARN("MpaClientPrivate has been destroyed already");
                                              }
                                            });
}

void StubMap::GetStubFromTimer(const std::string& aph) {
  const char* const name = app_type_.c_str();
  ZLOG_DEBUG("[%s] GetStub_ for APH (%s).", name, aph.c_str());
  const bool connected = peers_.app_init.proxy_connected();
  {
    std::lock_guard lock(stub_mutex_);
    if (timer_map_.erase(aph) == 0) {
      // The timer was cancelled when it had fired already; the canceller makes its own timer.
      ZLOG_INFO("[%s] GetStub_ Timer for (%s) is not present in timer_map_", name, aph.c_str());
      return;
    }
    if (!connected) {
      ZLOG_INFO("[%s] GetStub_ APH (%s), not connected to tnProxy.", name, aph.c_str());
      in_flight_.erase(aph);
      return;
    }
    if (update_stub_pending_) {
      ZLOG_INFO("[%s] GetStub_ APH (%s), update stub pending.", name, aph.c_str());
      in_flight_.erase(aph);
      return;
    }
  }
  GetStub(aph);
}

void StubMap::GetStub(const std::string& aph) {
  {
    std::lock_guard lock(stub_mutex_);
    in_flight_.insert(aph);
  }
  rpc::StubRequest request;
  request.source_id = peers_.proxy_client->getTnUuidStr();
  request.target = net::Endpoint("zem://" + aph);
  request.policy = SingleTry();
  request.timeout_ms = kStubTimeoutMs;
  peers_.source.RequestStub(std::move(request), [this, owner = peers_.owner, aph](
                                                    std::unique_ptr<MpStub> stub, const rpc::Status& status) {
    if (const auto alive = owner.lock()) {
      StubCreateDone(aph, std::move(stub), status);
    } else {
      ZLOG_WARN("StubCreateDone: MpaClientPrivate has been destroyed already (%s)", aph.c_str());
    }
  });
  ZLOG_DEBUG("[%s] MpaClientPrivate GetStub: Stub creation scheduled for APH (%s)", app_type_.c_str(),
             aph.c_str());
}

void StubMap::StubCreateFailed(const std::string& aph) {
  const char* const name = app_type_.c_str();
  ZLOG_INFO("[%s] MpaClientPrivate::StubCreateDone_: Stub creation failed for aph (%s)", name, aph.c_str());
  if (!peers_.proxy_client->connected_for_forwarding() || !peers_.app_init.proxy_connected()) {
    ZLOG_INFO("[%s] Not connected with TnProxy. Not re-trying stub creation for APH (%s).", name,
              aph.c_str());
    std::lock_guard lock(stub_mutex_);
    in_flight_.erase(aph);
    return;
  }
  bool fresh_start = false;
  {
    std::lock_guard lock(stub_mutex_);
    fresh_start = retry_countdown_.Failed();
  }
  if (fresh_start) {
    ScheduleStubCreation(aph, SpreadDelay(kRetryStubSpreadMs));
    return;
  }
  std::lock_guard lock(stub_mutex_);
  if (in_flight_.count(aph) == 0) {
    ZLOG_INFO("[%s] Not re-trying Stub creation for APH (%s), uuid not in in-flight set.", name, aph.c_str());
    return;
  }
  if (update_stub_pending_) {
    ZLOG_INFO("[%s] Not re-trying Stub creation for APH (%s), update stub is pending.", name, aph.c_str());
    in_flight_.erase(aph);
    return;
  }
  if (timer_map_.count(aph) != 0) {
    ZLOG_INFO("[%s] Timer for (%s) already present in timer_map_", name, aph.c_str());
    return;
  }
  ZLOG_INFO("[%s] MpaClientPrivate::StubCreateDone_: Starting timer for retry. APH (%s)", name, aph.c_str());
  auto& policy = retry_policies_.try_emplace(aph, StubRetryPolicy()).first->second;
  ScheduleStubCreationWithLock(aph, policy.NextDelay());
}

void StubMap::StubCreateDone(const std::string& aph, std::unique_ptr<MpStub> created,
                             const rpc::Status& status) {
  const char* const name = app_type_.c_str();
  if (!status.ok() || !created) {
    StubCreateFailed(aph);
    return;
  }
  ZLOG_INFO("[%s] MpaClientPrivate::StubCreateDone_: Stub creation successful for aph (%s)", name,
            aph.c_str());
  const bool is_master = IsMaster(aph);
  std::shared_ptr<MpStub> stub = std::move(created);
  {
    std::lock_guard lock(stub_mutex_);
    retry_policies_.try_emplace(aph, StubRetryPolicy()).first->second.Reset();
    ZLOG_INFO("[%s] Stub created for APH (%s).", name, aph.c_str());
    if (in_flight_.count(aph) == 0) {
      ZLOG_INFO("[%s] Dropping Stub for APH (%s), uuid not in in-flight set.", name, aph.c_str());
      return;
    }
    in_flight_.erase(aph);
    if (update_stub_pending_) {
      ZLOG_INFO("[%s] Dropping Stub for APH (%s), update stub is pending.", name, aph.c_str());
      return;
    }
    stub_map_[aph] = stub;
    if (is_master) {
      ZLOG_INFO("[%s] Stub created for Master APH (%s).", name, aph.c_str());
      master_stub_ = true;
    }
  }
  stub->SetOnStreamDown([this, owner = peers_.owner, aph](rpc::CloseReason reason) {
    if (const auto alive = owner.lock()) {
      OnStreamDown(aph, reason);
    } else {
      ZLOG_WARN("OnStreamDown_: MpaClientPrivate has been destroyed already");
    }
  });
  if (!is_master) return;
  peers_.connection.SetRoad(BusConnection::kConnected);
  peers_.app_init.AppInitHandshake();
}

void StubMap::OnStreamDown(const std::string& aph, rpc::CloseReason reason) {
  const char* const name = app_type_.c_str();
  const char* const reason_text = rpc::CloseReasonToCStr(reason);
  ZLOG_INFO("[%s] OnStreamDown for APH (%s), reason (%s)", name, aph.c_str(), reason_text);
  const bool is_master = IsMaster(aph);
  if (is_master) {
    peers_.app_init.GetNewAppInitSequenceNumber();
    peers_.connection.SetRoad(BusConnection::kDisconnected);
    peers_.app_specific.SendCloseToVertical(0);
    peers_.app_init.HandleMasterDown();
  }
  // The APH is not the master any more, and the present master, if there is one, has no stub yet.
  if (!is_master && peers_.app_init.IsServing(aph) && IsMasterStubMissing())
    peers_.app_specific.SendCloseToServedVertical(0);
  std::shared_ptr<MpStub> dropped;
  {
    std::lock_guard lock(stub_mutex_);
    const auto timer = timer_map_.find(aph);
    if (timer != timer_map_.end()) {
      timer->second->Cancel();
      timer_map_.erase(timer);
    }
    const auto stub = stub_map_.find(aph);
    if (stub != stub_map_.end()) {
      dropped = std::move(stub->second);
      stub_map_.erase(stub);
    }
    retry_countdown_.Reset();
    if (is_master) master_stub_ = false;
    if (update_stub_pending_) {
      ZLOG_INFO("[%s] OnStreamDown APH (%s), not re-trying : updateStubMap pending.", name, aph.c_str());
      return;
    }
  }
  if (reason == rpc::CloseReason::kConnectionLost || reason == rpc::CloseReason::kLocalClose) {
    ZLOG_INFO("[%s] OnStreamDown for APH (%s), reason (%s): Nothing to do for stream down", name, aph.c_str(),
              reason_text);
    return;
  }
  bool listed = false;
  {
    std::shared_lock lock(aph_mutex_);
    listed = aph_map_.count(aph) != 0;
  }
  if (!listed && reason == rpc::CloseReason::kTargetUnreachable) {
    ZLOG_INFO("[%s] OnStreamDown for APH (%s), reason (%s): APH was removed from cluster", name, aph.c_str(),
              reason_text);
    return;
  }
  if (peers_.proxy_client->connected_for_forwarding() && peers_.app_init.proxy_connected()) {
    ScheduleStubCreation(aph, SpreadDelay(kRetryStubSpreadMs));
  } else {
    ZLOG_INFO("[%s] OnStreamDown APH (%s), not connected to tnProxy.", name, aph.c_str());
  }
}

int64_t StubMap::SpreadDelay(uint64_t range_ms) const {
  return SpreadDelayMs(peers_.proxy_client->getTnUuidStr(), app_id_, range_ms);
}

}  // namespace zem
