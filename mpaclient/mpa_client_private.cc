#include "mpaclient/mpa_client_private.h"

#include "framework/log.h"
#include "mpaclient/mpa_client_app_specific.h"
#include "mpaclient/tn_proxy_client_common.h"
#include "platform/core/provider.h"
#include "platform/core/timer.h"
#include "platform/rpc/server.h"
#include "platform/rpc/transport.h"
#include "proto/messaging/messaging.pb.h"

namespace zem {
namespace {

constexpr LogSource kLog{"mpa-client"};

constexpr int64_t kRescheduleMs = 500;
constexpr int64_t kStubTimeoutMs = 10000;

RetryPolicy StubRetryPolicy() { return RetryPolicy(1000, 10000, 2.0, -1); }

// The library tries once; the client's own policy decides on further tries.
RetryPolicy SingleTry() { return RetryPolicy(1000000, 10000000, 2.0, 0); }

// Empty when nobody is.
std::string FirstMaster(const std::map<std::string, bool>& aphs) {
  for (const auto& [aph, is_master] : aphs) {
    if (is_master) return aph;
  }
  return {};
}

}  // namespace

MpaClientPrivateBase::MpaClientPrivateBase(MpaClientArguments arguments, const Vertical& vertical)
    : MpaClient(arguments.provider, std::move(arguments.callback), std::move(arguments.name),
                std::move(arguments.id), arguments.client_type, arguments.port),
      vertical_(vertical),
      forwarding_provider_(proxy_client_ ? &proxy_client_->forwarding_provider() : &arguments.provider) {}

MpaClientPrivateBase::~MpaClientPrivateBase() = default;

AsioZemProvider& MpaClientPrivateBase::timer_provider() { return *forwarding_provider_; }

void MpaClientPrivateBase::CreateAppSpecificInstance(const std::shared_ptr<MpaClient>& self) {
  const char* const name = app_type_.c_str();
  app_specific_ = MakeAppSpecificInstance(vertical_, self);
  if (auto service = MakeHostService(app_specific_)) {
    rpc::ServerBuilder builder(forwarding_provider_->rpc());
    builder.AddLocalEndpointId(app_type_);
    builder.RegisterService(std::move(service));
    ZLOG_DEBUG("[%s] CreateAppSpecificInstance Registered Service", name);
    server_ = builder.BuildStarted();
    ZLOG_DEBUG("[%s] CreateAppSpecificInstance Build Started", name);
  }
  purge_timer_ = forwarding_provider_->timers().ScheduleRepeated(
      vertical_.purge_period,
      [weak = weak_from_this()] {
        if (const auto client = weak.lock()) {
          client->PurgeStaleCallHandles();
        } else {
          ZLOG_WARN("MpaClientPrivate has been destroyed already");
        }
      },
      TimerOptions::Default);
  ZLOG_DEBUG("[%s] CreateAppSpecificInstance End (MPA_CLIENT_PURGE_TIMER: %d)", name,
             static_cast<int>(vertical_.purge_period.count()));
}

void MpaClientPrivateBase::ReleaseAppSpecificInstance() {
  if (purge_timer_) purge_timer_->Cancel();
  {
    std::lock_guard lock(stub_mutex_);
    if (reschedule_timer_) reschedule_timer_->Cancel();
  }
  if (server_) server_->Stop();
  server_.reset();
  CleanUpForStubs();
  if (app_specific_) app_specific_->ReleaseClient();
}

void MpaClientPrivateBase::PurgeStaleCallHandles() {
  ZLOG_DEBUG("PurgeStaleCallHandles Begin");
  app_specific_->PurgeStaleCallHandles();
  ZLOG_DEBUG("[%s] PurgeStaleCallHandles End", app_type_.c_str());
}

rpc::CallHandle<MpaClient::GenericUnifiedMsg> MpaClientPrivateBase::GetFromAppSpecificSeqToCallHandleMap(
    uint32_t sequence) {
  return app_specific_->GetFromSeqToCallHandleMap(sequence);
}

void MpaClientPrivateBase::RegisterWithTnProxyClient() {
  if (!proxy_client_) return;
  proxy_client_->SetTnProxyConnectionUp(app_type_, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->HandleTnProxyConnected();
  });
  proxy_client_->SetTnProxyConnectionDown(app_type_, [weak = weak_from_this()](rpc::CloseReason reason) {
    if (const auto self = weak.lock()) self->HandleTnProxyDisconnected(reason);
  });
  // These two only serve the manager's calls, and ask nothing of it by themselves.
  if (app_type_ == "SupportBundle" || app_type_ == "UPGRADE") return;
  proxy_client_->SetUpdateStubs(app_type_, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->updateStubMap();
  });
}

void MpaClientPrivateBase::HandleTnProxyConnected() {
  ZLOG_INFO("[%s] TnProxy Connected.", app_type_.c_str());
  std::lock_guard lock(app_init_mutex_);
  proxy_connected_ = true;
  CancelAppInitTimersLocked();
}

void MpaClientPrivateBase::HandleTnProxyDisconnected(rpc::CloseReason reason) {
  ZLOG_INFO("[%s] TnProxy Disconnected (%s)", app_type_.c_str(), rpc::CloseReasonToCStr(reason));
  SetConnectionState(kDisconnected);
  std::lock_guard lock(app_init_mutex_);
  proxy_connected_ = false;
  app_init_completed_ = false;
  CancelAppInitTimersLocked();
  CleanUpForStubs();
  GetNewAppInitSequenceNumber();
}

void MpaClientPrivateBase::CleanUpForStubs() {
  ZLOG_INFO("[%s] CleanUpForStubs", app_type_.c_str());
  StubMap dropped;  // closed after the lock
  {
    std::lock_guard lock(stub_mutex_);
    master_stub_ = false;
    ClearTimerMap();
    dropped.swap(stub_map_);
    retry_countdown_.Reset();
  }
  if (app_specific_) app_specific_->PurgeCallHandleMap();
  ZLOG_INFO("[%s] CleanUpForStubs Done", app_type_.c_str());
}

// With the stub lock held.
void MpaClientPrivateBase::ClearTimerMap() {
  ZLOG_INFO("[%s] ClearTimerMap (%lu)", app_type_.c_str(), static_cast<unsigned long>(timer_map_.size()));
  for (const auto& [aph, timer] : timer_map_) {
    timer->Cancel();
    in_flight_.erase(aph);
  }
  timer_map_.clear();
}

void MpaClientPrivateBase::updateStubMap() {
  const char* const name = app_type_.c_str();
  std::unique_lock update_lock(update_mutex_);
  ZLOG_DEBUG("[%s] updateStubMap", name);
  {
    std::lock_guard lock(stub_mutex_);
    if (update_stub_pending_) {
      ZLOG_INFO("[%s] updateStubMap: Already Pending", name);
      return;
    }
    ZLOG_INFO("[%s] cleaning up for stubs", name);
    update_stub_pending_ = true;
    ClearTimerMap();
    retry_countdown_.Reset();
  }
  if (uuid_callback_ && proxy_client_) uuid_callback_(proxy_client_->getTnUuidStr());
  PerformUpdateStubMap();
}

bool MpaClientPrivateBase::WaitForInfightStubCreateRequest() {
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
void MpaClientPrivateBase::PerformUpdateStubMap() {
  const char* const name = app_type_.c_str();
  if (WaitForInfightStubCreateRequest()) {
    ZLOG_INFO("[%s] performUpdateStubMap: Re-scheduling self on provider thread", name);
    auto timer = forwarding_provider_->timers().Schedule(
        std::chrono::milliseconds(kRescheduleMs), [weak = weak_from_this()] {
          const auto self = weak.lock();
          if (!self) {
            ZLOG_WARN("performUpdateStubMapCb: MpaClientPrivate has been destroyed already");
            return;
          }
          std::lock_guard update_lock(self->update_mutex_);
          self->PerformUpdateStubMap();
        });
    std::lock_guard lock(stub_mutex_);
    reschedule_timer_ = std::move(timer);
    return;
  }
  {
    std::lock_guard lock(stub_mutex_);
    update_stub_pending_ = false;
  }
  const auto new_map = proxy_client_ ? proxy_client_->aphs() : std::map<std::string, bool>();
  std::map<std::string, bool> old_map;
  {
    std::lock_guard lock(aph_mutex_);
    old_map = std::exchange(aph_map_, new_map);
  }
  ApplyNewMaps(old_map, new_map);
  ZLOG_DEBUG("[%s] performUpdateStubMap End", name);
}

void MpaClientPrivateBase::NewMaster(const std::string& aph) {
  ZLOG_INFO("[%s] performUpdateStubMap: New Master APH (%s)", app_type_.c_str(), aph.c_str());
  GetNewAppInitSequenceNumber();
  {
    std::lock_guard lock(app_init_mutex_);
    app_init_completed_ = false;
  }
  std::lock_guard lock(stub_mutex_);
  master_stub_ = false;
}

void MpaClientPrivateBase::ApplyNewMaps(const std::map<std::string, bool>& old_map,
                                        const std::map<std::string, bool>& new_map) {
  const char* const name = app_type_.c_str();
  for (const auto& [aph, was_master] : old_map) {
    if (new_map.count(aph) != 0) continue;
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
  const std::string master = MasterAph();
  const std::string old_master = FirstMaster(old_map);
  bool handshake = false;
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
      ZLOG_INFO("[%s] performUpdateStubMap: scheduling Stub creation for APH (%s) with delay (%lld)", name,
                aph.c_str(), static_cast<long long>(delay_ms));
      ScheduleStubCreationWithLock(aph, delay_ms);
    } else if (is_master) {
      if (aph != old_master) {
        NewMaster(aph);
        handshake = true;
      } else {
        ZLOG_INFO("[%s] performUpdateStubMap: No Mastership change.", name);
      }
    }
  }
  if (!handshake) return;
  {
    // The new master's stub exists already, so nobody else will set this.
    std::lock_guard lock(stub_mutex_);
    master_stub_ = true;
  }
  SetConnectionState(kConnected);
  AppInitHandshake();
}

void MpaClientPrivateBase::ScheduleStubCreation(const std::string& aph, int64_t delay_ms) {
  ZLOG_INFO("[%s] ScheduleStubCreation : delay (%lld)", app_type_.c_str(), static_cast<long long>(delay_ms));
  std::lock_guard lock(stub_mutex_);
  AddStubTimer(aph, delay_ms);
}

void MpaClientPrivateBase::ScheduleStubCreationWithLock(const std::string& aph, int64_t delay_ms) {
  ZLOG_INFO("[%s] ScheduleStubCreationWithLock : delay (%lld)", app_type_.c_str(),
            static_cast<long long>(delay_ms));
  AddStubTimer(aph, delay_ms);
}

void MpaClientPrivateBase::AddStubTimer(const std::string& aph, int64_t delay_ms) {
  auto& timer = timer_map_[aph];
  if (timer) timer->Cancel();
  timer = forwarding_provider_->timers().Schedule(
      std::chrono::milliseconds(delay_ms), [weak = weak_from_this(), aph] {
        if (const auto self = weak.lock()) {
          self->GetStubFromTimer(aph);
        } else {
          ZLOG_WARN("MpaClientPrivate has been destroyed already");
        }
      });
}

bool MpaClientPrivateBase::proxy_connected() const {
  std::shared_lock lock(app_init_mutex_);
  return proxy_connected_;
}

void MpaClientPrivateBase::GetStubFromTimer(const std::string& aph) {
  const char* const name = app_type_.c_str();
  ZLOG_DEBUG("[%s] GetStub_ for APH (%s).", name, aph.c_str());
  const bool connected = proxy_connected();
  {
    std::lock_guard lock(stub_mutex_);
    if (timer_map_.erase(aph) == 0) {
      // Cancelled in the moment it fired: whoever cancelled it has taken over.
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

void MpaClientPrivateBase::GetStub(const std::string& aph) {
  {
    std::lock_guard lock(stub_mutex_);
    in_flight_.insert(aph);
  }
  rpc::StubRequest request;
  request.source_id = proxy_client_->getTnUuidStr();
  request.target = net::Endpoint("zem://" + aph);
  request.policy = SingleTry();
  request.timeout_ms = kStubTimeoutMs;
  RequestStub(std::move(request),
              [weak = weak_from_this(), aph](std::unique_ptr<MpStub> stub, const rpc::Status& status) {
                if (const auto self = weak.lock()) {
                  self->StubCreateDone(aph, std::move(stub), status);
                } else {
                  ZLOG_WARN("StubCreateDone: MpaClientPrivate has been destroyed already (%s)", aph.c_str());
                }
              });
  ZLOG_DEBUG("[%s] MpaClientPrivate GetStub: Stub creation scheduled for APH (%s)", app_type_.c_str(),
             aph.c_str());
}

void MpaClientPrivateBase::StubCreateFailed(const std::string& aph) {
  const char* const name = app_type_.c_str();
  ZLOG_INFO("[%s] MpaClientPrivate::StubCreateDone_: Stub creation failed for aph (%s)", name, aph.c_str());
  if (!proxy_client_->connected_for_forwarding() || !proxy_connected()) {
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

void MpaClientPrivateBase::StubCreateDone(const std::string& aph, std::unique_ptr<MpStub> created,
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
  stub->SetOnStreamDown([weak = weak_from_this(), aph](rpc::CloseReason reason) {
    if (const auto self = weak.lock()) {
      self->OnStreamDown(aph, reason);
    } else {
      ZLOG_WARN("OnStreamDown_: MpaClientPrivate has been destroyed already");
    }
  });
  if (!is_master) return;
  SetConnectionState(kConnected);
  AppInitHandshake();
}

void MpaClientPrivateBase::OnStreamDown(const std::string& aph, rpc::CloseReason reason) {
  const char* const name = app_type_.c_str();
  const char* const reason_text = rpc::CloseReasonToCStr(reason);
  ZLOG_INFO("[%s] OnStreamDown for APH (%s), reason (%s)", name, aph.c_str(), reason_text);
  const bool is_master = IsMaster(aph);
  if (is_master) {
    GetNewAppInitSequenceNumber();
    SetConnectionState(kDisconnected);
    app_specific_->SendCloseToVertical(0);
    std::lock_guard lock(app_init_mutex_);
    app_init_completed_ = false;
    if (wait_tn_proxy_timer_) wait_tn_proxy_timer_->Cancel();
    wait_tn_proxy_timer_.reset();
  }
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
  if (proxy_client_->connected_for_forwarding() && proxy_connected()) {
    ScheduleStubCreation(aph, SpreadDelay(kRetryStubSpreadMs));
  } else {
    ZLOG_INFO("[%s] OnStreamDown APH (%s), not connected to tnProxy.", name, aph.c_str());
  }
}

int64_t MpaClientPrivateBase::SpreadDelay(uint64_t range_ms) const {
  return SpreadDelayMs(proxy_client_->getTnUuidStr(), app_id_, range_ms);
}

std::string MpaClientPrivateBase::MasterAph() const {
  std::string master;
  {
    std::shared_lock lock(aph_mutex_);
    master = FirstMaster(aph_map_);
  }
  ZLOG_DEBUG("MasterAph uuid : %s.", master.c_str());
  return master;
}

bool MpaClientPrivateBase::IsMaster(const std::string& aph) const { return aph == MasterAph(); }

bool MpaClientPrivateBase::IsMasterStubMissing() {
  std::shared_lock lock(stub_mutex_);
  return !master_stub_;
}

std::map<std::string, bool> MpaClientPrivateBase::Aphs() const {
  std::shared_lock lock(aph_mutex_);
  return aph_map_;
}

std::shared_ptr<MpStub> MpaClientPrivateBase::FindStub(const std::string& aph) {
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

int MpaClientPrivateBase::MsgHandler(const GenericUnifiedMsg& message, const std::string& aph,
                                     rpc::CallObserver<VoidMsg>* observer) {
  std::unique_ptr<rpc::CallObserver<VoidMsg>> owned(observer);
  const auto stub = FindStub(aph);
  if (!stub) {
    if (aph.empty()) {
      ZLOG_INFO("[%s] MsgHandler : Invalid stub for Master APH ", app_type_.c_str());
    } else {
      ZLOG_INFO("[%s] MsgHandler : Invalid stub for APH (%s)", app_type_.c_str(), aph.c_str());
    }
    return -1;
  }
  stub->MsgHandler(rpc::ClientContext(proxy_client_->getTnUuidStr()), message, owned.release());
  return 0;
}

int MpaClientPrivateBase::RpcMsgHandler(const GenericUnifiedMsg& message, const std::string& aph,
                                        rpc::CallObserver<GenericUnifiedMsg>* observer, uint32_t sequence) {
  std::unique_ptr<rpc::CallObserver<GenericUnifiedMsg>> owned(observer);
  const auto stub = FindStub(aph);
  if (!stub) {
    ZLOG_INFO("[%s] RpcMsgHandler for APH (%s) has invalid stub", app_type_.c_str(), aph.c_str());
    return -1;
  }
  const rpc::ClientContext context(proxy_client_->getTnUuidStr());
  // The answer takes this mutex as well, so it finds the handle in the map however fast it comes.
  std::lock_guard lock(app_specific_->call_mutex());
  const auto handle = stub->RpcMsgHandler(context, message, owned.release());
  if (sequence != 0) app_specific_->AddToSeqToCallHandleMap(sequence, handle);
  return 0;
}

int MpaClientPrivateBase::SendMsgViaTnProxy(rmqClientMessage* message, const std::string& aph) {
  const char* const name = app_type_.c_str();
  ZLOG_DEBUG("[%s] SendMsgViaTnProxy: APH (%s) Message (%d)", name, aph.c_str(),
             static_cast<int>(message->msg_type));
  switch (message->msg_type) {
    case kRmqVsmPayload:
    case kRmqClientPublish:
    case kRmqClientRpcRequest:
      return app_specific_->SendRequest(message, aph);
    case kRmqClientRpcResponse:
      return app_specific_->RespondMsg(message);
    default:
      ZLOG_INFO("[%s] MpaClientPrivate SendMsgViaTnProxy: Unsupported message (%d)", name,
                static_cast<int>(message->msg_type));
      return -1;
  }
}

void MpaClientPrivateBase::AppInitHandshake() {
  bool ack = false;
  {
    std::lock_guard lock(app_init_mutex_);
    ack = AppInitHandshakeLocked();
  }
  if (ack) SendRegistrationAck();
}

void MpaClientPrivateBase::SendRegistrationAck() { app_specific_->SendRegistrationAckToVertical(0); }

bool MpaClientPrivateBase::AppInitHandshakeLocked() {
  const char* const name = app_type_.c_str();
  ZLOG_DEBUG("[%s] MpaClientPrivate AppInitHandshake - Begin", name);
  if (!app_specific_->NeedsAppInit()) {
    HandleAppInitSuccess();
    return true;
  }
  uint32_t sequence = GetNewAppInitSequenceNumber();
  // Zero stands for "no handshake" with an observer.
  if (sequence == 0) sequence = GetNewAppInitSequenceNumber();
  ZLOG_INFO("[%s] MpaClientPrivate AppInitHandshake : seq: %d", name, static_cast<int>(sequence));
  if (app_specific_->SendAppInitRequest(sequence) == 0) {
    WaitForAppInitHandshakeCompletion(sequence);
    ZLOG_DEBUG("[%s] MpaClientPrivate AppInitHandshake : End", name);
    return false;
  }
  ZLOG_INFO("[%s] MpaClientPrivate AppInitHandshake Failed, retry", name);
  if (IsCurrent(sequence)) {
    RetryAppInitHandshakeLocked(sequence);
  } else {
    ZLOG_INFO(
        "[%s] MpaClientPrivate AppInitHandshake : Not retrying app-init, curr-seq: (%d) is different from "
        "app_init_seq_num_",
        name, static_cast<int>(sequence));
  }
  return false;
}

MpaClientPrivateBase::Snapshot MpaClientPrivateBase::snapshot() const {
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

}  // namespace zem
