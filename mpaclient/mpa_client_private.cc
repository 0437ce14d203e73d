#include "mpaclient/mpa_client_private.h"

#include "framework/log/log.h"
#include "mpaclient/mpa_client_app_specific.h"
#include "mpaclient/tn_proxy_client_common.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/server.h"
#include "platform/rpc/transport.h"
#include "proto/messaging/messaging.pb.h"

namespace zem {
namespace {

constexpr LogSource kLog{"mpa-client"};

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
      vertical_.traits.purge_period,
      [weak = weak_from_this()] {
        if (const auto client = weak.lock()) {
          client->PurgeStaleCallHandles();
        } else {
          ZLOG_WARN("MpaClientPrivate has been destroyed already");
        }
      },
      TimerOptions::Default);
  ZLOG_DEBUG("[%s] CreateAppSpecificInstance End (MPA_CLIENT_PURGE_TIMER: %d)", name,
             static_cast<int>(vertical_.traits.purge_period.count()));
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
  if (vertical_.traits.only_serves) return;
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
  {
    std::lock_guard lock(app_init_mutex_);
    proxy_connected_ = false;
    app_init_completed_ = false;
    CancelAppInitTimersLocked();
    CleanUpForStubs();
    GetNewAppInitSequenceNumber();
  }
  // The master's stream has told it already, unless the master had no stub or nobody was master.
  app_specific_->SendCloseToServedVertical(0);
}

std::string MpaClientPrivateBase::FirstMaster(const std::map<std::string, bool>& aphs) {
  for (const auto& [aph, is_master] : aphs) {
    if (is_master) return aph;
  }
  return {};
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

bool MpaClientPrivateBase::IsServing(const std::string& aph) const {
  std::shared_lock lock(app_init_mutex_);
  return aph == serving_aph_;
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

int MpaClientPrivateBase::SendMsgViaTnProxy(rmqClientMessage* message, const std::string& aph,
                                            SendFailure* why) {
  const char* const name = app_type_.c_str();
  ZLOG_DEBUG("[%s] SendMsgViaTnProxy: APH (%s) Message (%d)", name, aph.c_str(),
             static_cast<int>(message->msg_type));
  switch (message->msg_type) {
    case kRmqVsmPayload:
    case kRmqClientPublish:
    case kRmqClientRpcRequest:
      return app_specific_->SendRequest(message, aph, why);
    case kRmqClientRpcResponse:
      return app_specific_->RespondMsg(message, aph, why);
    default:
      *why = SendFailure::kRefused;
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
  serving_aph_ = MasterAph();
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
