#include "mpaclient/mpa_client_private_base.h"

#include "framework/log/log.h"
#include "mpaclient/mpa_client_app_specific.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
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
    : MpaClient(std::move(arguments)),
      vertical_(vertical),
      forwarding_provider_(proxy_client_ ? proxy_client_->forwarding_provider() : provider_),
      app_init_(*this, forwarding_provider_, app_type_) {}

MpaClientPrivateBase::~MpaClientPrivateBase() = default;

void MpaClientPrivateBase::CreateAppSpecificInstance(const std::shared_ptr<MpaClient>& self) {
  const char* const name = app_type_.c_str();
  app_init_.SetOwner(weak_from_this());
  app_specific_ = MakeAppSpecific(self);
  stubs_ = std::make_unique<StubMap>(app_type_, app_id_,
                                     StubMap::Peers{self, *this, app_init_, *connection_, *app_specific_,
                                                    proxy_client_, forwarding_provider_});
  if (auto service = MakeHostService(app_specific_)) {
    rpc::ServerBuilder builder(forwarding_provider_.rpc());
    builder.AddLocalEndpointId(app_type_);
    builder.RegisterService(std::move(service));
    ZLOG_DEBUG("[%s] CreateAppSpecificInstance Registered Service", name);
    server_ = builder.BuildStarted();
    ZLOG_DEBUG("[%s] CreateAppSpecificInstance Build Started", name);
  }
  purge_timer_ = forwarding_provider_.timers().ScheduleRepeated(
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
  stubs_->CancelUpdate();
  if (server_) server_->Stop();
  server_.reset();
  CleanUpForStubs();
  app_specific_->ReleaseClient();
}

void MpaClientPrivateBase::PurgeStaleCallHandles() {
  ZLOG_DEBUG("PurgeStaleCallHandles Begin");
  app_specific_->calls().PurgeStaleCallHandles();
  ZLOG_DEBUG("[%s] PurgeStaleCallHandles End", app_type_.c_str());
}

rpc::CallHandle<MpaClient::GenericUnifiedMsg> MpaClientPrivateBase::GetFromAppSpecificSeqToCallHandleMap(
    uint32_t sequence) {
  return app_specific_->sequence_calls().GetFromSeqToCallHandleMap(sequence);
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
  app_init_.HandleTnProxyConnected();
}

void MpaClientPrivateBase::HandleTnProxyDisconnected(rpc::CloseReason reason) {
  ZLOG_INFO("[%s] TnProxy Disconnected (%s)", app_type_.c_str(), rpc::CloseReasonToCStr(reason));
  connection_->SetRoad(kDisconnected);
  app_init_.HandleTnProxyDisconnected([this] { CleanUpForStubs(); });
  // The end of the master's stream has sent the CLOSE already, unless there was no master or it had no stub.
  app_specific_->SendCloseToServedVertical(0);
}

std::map<std::string, bool> MpaClientPrivateBase::Aphs() const { return stubs_->Aphs(); }

bool MpaClientPrivateBase::IsMasterStubMissing() { return stubs_->IsMasterStubMissing(); }

void MpaClientPrivateBase::updateStubMap() { stubs_->updateStubMap(uuid_callback_); }

int MpaClientPrivateBase::MsgHandler(const GenericUnifiedMsg& message, const std::string& aph,
                                     rpc::CallObserver<VoidMsg>* observer) {
  std::unique_ptr<rpc::CallObserver<VoidMsg>> owned(observer);
  const auto stub = stubs_->FindStub(aph);
  if (!stub) {
    if (aph.empty()) {
      ZLOG_INFO("[%s] MsgHandler : Invalid stub for Master APH ", app_type_.c_str());
    } else {
      ZLOG_INFO("[%s] MsgHandler : Invalid stub for APH (%s)", app_type_.c_str(), aph.c_str());
    }
    return -1;
  }
  const auto call =
      stub->MsgHandler(rpc::ClientContext(proxy_client_->getTnUuidStr()), message, owned.release());
  // What the connection turns down at once, because it is going or too much waits in it, was not sent: the
  // caller may keep its message.
  const auto status = call.FinalStatus();
  if (!status || status->ok()) return 0;
  ZLOG_INFO("[%s] MsgHandler : not sent, %s", app_type_.c_str(), status->ToString().c_str());
  return -1;
}

int MpaClientPrivateBase::RpcMsgHandler(const GenericUnifiedMsg& message, const std::string& aph,
                                        rpc::CallObserver<GenericUnifiedMsg>* observer, uint32_t sequence) {
  std::unique_ptr<rpc::CallObserver<GenericUnifiedMsg>> owned(observer);
  const auto stub = stubs_->FindStub(aph);
  if (!stub) {
    ZLOG_INFO("[%s] RpcMsgHandler for APH (%s) has invalid stub", app_type_.c_str(), aph.c_str());
    return -1;
  }
  const rpc::ClientContext context(proxy_client_->getTnUuidStr());
  app_specific_->sequence_calls().AddToSeqToCallHandleMap(
      sequence, [&] { return stub->RpcMsgHandler(context, message, owned.release()); });
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

void MpaClientPrivateBase::HandleClose() {
  MpaClient::HandleClose();
  app_init_.HandleClose();
}

bool MpaClientPrivateBase::CompleteAppInitHandshake(uint32_t sequence, bool success) {
  return app_init_.CompleteAppInitHandshake(sequence, success);
}

bool MpaClientPrivateBase::NeedsAppInit() const { return app_specific_->NeedsAppInit(); }

int MpaClientPrivateBase::SendAppInitRequest(uint32_t sequence) {
  return app_specific_->SendAppInitRequest(sequence);
}

bool MpaClientPrivateBase::CancelAppInitCall(uint32_t sequence) {
  auto last = GetFromAppSpecificSeqToCallHandleMap(sequence);
  if (!last) return false;
  ZLOG_INFO("[%s] Cancelling last RPC call handle for seq %d", app_type_.c_str(), static_cast<int>(sequence));
  ZLOG_INFO("[%s] CancelAppInitCall", app_type_.c_str());
  last.Cancel();
  return true;
}

void MpaClientPrivateBase::SendRegistrationAck() { app_specific_->SendRegistrationAckToVertical(0); }

}  // namespace zem
