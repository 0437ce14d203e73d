#include "covedbclient/covedb_client.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "covedbclient/client_log.h"
#include "covedbclient/response_observer.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/provider/weak_call.h"
#include "platform/rpc/close_reason.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"

namespace zem::covedb {
namespace {

using orlane::zem::covedb::CoveDb;
using orlane::zem::covedb::CoveDbOps;
using orlane::zem::covedb::ModifyResponseMsg;
using rpc::StatusCode;
using DaemonHealth = daemon::DaemonHealth;

constexpr const char* kStubSource = "covedb-client";
constexpr const char* kPendingGauge = "/zem/covedb/client/pending_request/count";
constexpr int64_t kRetryMs = 5000;

// A request is written to the log as far as a reader would follow it.
constexpr size_t kMaxLoggedRequest = 16384;

std::string ShortText(const ModifyQueue::Requests& requests) {
  std::string text;
  for (const ModifyRequestMsg& request : requests) {
    if (text.size() >= kMaxLoggedRequest) break;
    if (!text.empty()) text += ' ';
    text += request.ShortDebugString();
  }
  if (text.size() > kMaxLoggedRequest) text.replace(kMaxLoggedRequest, std::string::npos, "...");
  return text;
}

// The store will refuse the same request for ever.
bool IsUnrecoverable(const rpc::Status& status) {
  switch (static_cast<StatusCode>(status.code())) {
    case StatusCode::kInvalidArgument:
    case StatusCode::kUnknownType:
    case StatusCode::kBadValue:
    case StatusCode::kNotFound:
      return true;
    default:
      return false;
  }
}

void EndProcess(int code) {
  std::fflush(nullptr);
  std::_Exit(code);
}

}  // namespace

CoveDbClient::CoveDbClient(std::string id, std::string endpoint, AsioZemProvider& provider,
                           std::shared_ptr<std::recursive_mutex> state_mutex,
                           bool create_default_monitor_session, bool monitor_session_creation_enabled,
                           bool schema_check, std::function<void(int)> exit)
    : context_(std::move(id)),
      endpoint_(std::move(endpoint)),
      provider_(provider),
      retry_policy_(kRetryMs),
      modify_queue_(provider.metrics().gauge(kPendingGauge)),
      state_mutex_(state_mutex ? std::move(state_mutex) : std::make_shared<std::recursive_mutex>()),
      create_default_monitor_session_(create_default_monitor_session),
      monitor_session_creation_enabled_(monitor_session_creation_enabled),
      schema_check_(schema_check),
      exit_(exit ? std::move(exit) : EndProcess) {
  ChangeState(State::INIT);
}

CoveDbClient::~CoveDbClient() = default;

CoveDbClient::State CoveDbClient::state() const {
  const StateLock lock(*state_mutex_);
  return state_;
}

void CoveDbClient::Start() {
  std::unique_lock lock(*state_mutex_);
  if (state_ != State::INIT) {
    ZLOG_WARN("CoveDbClient is already trying to connect (state: %s)", ClientStateName(state_));
    return;
  }
  const uint64_t before = connected_count_;
  ChangeState(State::CONNECTING);
  connected_.Wait(lock, [&] { return connected_count_ != before; });
}

void CoveDbClient::StartAsync() {
  const StateLock lock(*state_mutex_);
  if (state_ != State::INIT) {
    ZLOG_WARN("CoveDbClient is already trying to connect (state: %s)", ClientStateName(state_));
    return;
  }
  ChangeState(State::CONNECTING);
}

// --- States.

void CoveDbClient::ChangeState(State state) {
  do {
    if (state == state_) {
      ZLOG_INFO("CoveDbClient: won't change state to %s - already there", ClientStateName(state));
      return;
    }
    OnExit(state_);
    ZLOG_INFO("CoveDbClient: changing state %s to %s", ClientStateName(state_), ClientStateName(state));
    state_ = state;
    next_state_ = State::NONE;
    OnEnter(state);
    state = next_state_;
  } while (state != State::NONE);
}

void CoveDbClient::OnEnter(State state) {
  ZLOG_DEBUG("CoveDbClient: entering %s state", ClientStateName(state));
  switch (state) {
    case State::INIT:
      return;
    case State::CONNECTING:
      return EnterRequesting(&CoveDbClient::RequestStub);
    case State::REQUEST_OPS_STUB:
      return EnterRequesting(&CoveDbClient::RequestOpsStub);
    case State::REQUEST_DAEMON_HEALTH_STUB:
      return EnterRequesting(&CoveDbClient::RequestDaemonHealthStub);
    case State::CONNECTED:
      return EnterConnected();
    case State::DISCONNECTED:
      return EnterDisconnected();
    case State::ERROR:
      ZLOG_WARN("CoveDbClient is in ERROR state");
      return;
    case State::NONE:
      break;
  }
  ZLOG_TAGGED(kLogError, "NDB101", "CoveDbClient::OnEnter was called with an invalid state %i",
              static_cast<int>(state));
}

void CoveDbClient::OnExit(State state) {
  ZLOG_DEBUG("CoveDbClient: exiting %s state", ClientStateName(state));
  switch (state) {
    case State::NONE:  // before the first state
    case State::INIT:
    case State::DISCONNECTED:
    case State::ERROR:
      return;
    case State::CONNECTING:
    case State::REQUEST_OPS_STUB:
    case State::REQUEST_DAEMON_HEALTH_STUB:
      if (retry_timer_) retry_timer_->Cancel();
      return;
    case State::CONNECTED:
      ZLOG_INFO("CoveDbClient is disconnected");
      NotifyChannelStatus(false);
      return;
  }
  ZLOG_TAGGED(kLogError, "NDB102", "CoveDbClient::OnExit was called with an invalid state %i",
              static_cast<int>(state));
}

void CoveDbClient::EnterRequesting(void (CoveDbClient::*request)()) {
  ZLOG_DEBUG("CoveDbClient is connecting...");
  retry_timer_.reset();
  retry_policy_ = RetryPolicy(kRetryMs);
  (this->*request)();
}

void CoveDbClient::EnterConnected() {
  ZLOG_INFO("CoveDbClient is connected");
  ++connected_count_;
  connected_.NotifyAll();
  if (schema_check_) {
    server_schema_.Restart();
    GetServerSchemaAndVersion();
    return;
  }
  if (monitor_session_creation_enabled_) SetupMonitors();
  NotifyChannelStatus(true);
  SendModifyRequest();
}

void CoveDbClient::EnterDisconnected() {
  covedb_stub_.reset();
  ops_stub_.reset();
  daemon_health_stub_.reset();
  for (auto& [vdb_id, refused] : monitor_refusals_) {
    if (refused.timer) refused.timer->Cancel();
  }
  monitor_refusals_.clear();
  // Answers of the lost stubs will not come any more; the next connection asks anew.
  schema_call_allowed_ = true;
  schema_version_call_allowed_ = true;
  server_schema_.Restart();
  for (std::shared_ptr<Timer>* timer : {&schema_timer_, &schema_version_timer_}) {
    if (*timer) (*timer)->Cancel();
    timer->reset();
  }
  next_state_ = State::CONNECTING;
}

// --- Stubs.

template <class Stub>
void CoveDbClient::Create(void (CoveDbClient::*set)(std::optional<Stub>), const char* name) {
  rpc::StubRequest request;
  request.source_id = kStubSource;
  request.target = net::Endpoint(endpoint_);
  auto done = WeakCall(
      weak_from_this(),
      [set](CoveDbClient& client, std::optional<Stub> stub, const rpc::Status&) {
        const StateLock lock(*client.state_mutex_);
        (client.*set)(std::move(stub));
      },
      [name] { ZLOG_DEBUG("CoveDbClient::%s: ignoring callback, client is already destroyed", name); });
  provider_.rpc().stubs().template create<Stub>(std::move(request), std::move(done));
}

void CoveDbClient::RequestStub() {
  ZLOG_DEBUG("CoveDbClient: requesting stub to %s", endpoint_.c_str());
  Create<CoveDb::Stub>(&CoveDbClient::SetStub, "SetStub");
}

void CoveDbClient::RequestOpsStub() {
  ZLOG_DEBUG("CoveDbClient: requesting ops stub to %s", endpoint_.c_str());
  Create<CoveDbOps::Stub>(&CoveDbClient::SetOpsStub, "SetOpsStub");
}

void CoveDbClient::RequestDaemonHealthStub() {
  ZLOG_DEBUG("CoveDbClient: requesting daemon health stub to %s", endpoint_.c_str());
  Create<DaemonHealth::Stub>(&CoveDbClient::SetDaemonHealthStub, "SetDaemonHealthStub");
}

void CoveDbClient::RequestAgain(void (CoveDbClient::*request)(), const char* name, int64_t delay_ms) {
  const State asking = state_;
  retry_timer_ = provider_.timers().Schedule(
      std::chrono::milliseconds(delay_ms),
      WeakCall(
          weak_from_this(),
          [request, asking](CoveDbClient& client) {
            const StateLock lock(*client.state_mutex_);
            // A timer that fired while the state was changing comes too late to be cancelled.
            if (client.state_ == asking) (client.*request)();
          },
          [name] { ZLOG_DEBUG("CoveDbClient::%s: ignoring callback, client is already destroyed", name); }));
}

void CoveDbClient::SetStub(std::optional<CoveDb::Stub> stub) {
  if (!stub) {
    const long delay = retry_policy_.NextDelay();
    ZLOG_WARN("CoveDbClient: failed to get stub to %s, retrying in %li ms...", endpoint_.c_str(), delay);
    RequestAgain(&CoveDbClient::RequestStub, "RequestStub", delay);
    return;
  }
  ZLOG_DEBUG("CoveDbClient: got stub to %s", endpoint_.c_str());
  covedb_stub_ = std::move(stub);
  covedb_stub_->SetOnStreamDown(WeakCall(
      weak_from_this(), [](CoveDbClient& client, rpc::CloseReason reason) { client.OnRpcStreamDown(reason); },
      [] { ZLOG_DEBUG("CoveDbClient is already destroyed"); }));
  ChangeState(State::REQUEST_OPS_STUB);
}

void CoveDbClient::SetOpsStub(std::optional<CoveDbOps::Stub> stub) {
  if (state_ != State::REQUEST_OPS_STUB) {
    ZLOG_DEBUG("CoveDbClient: not in REQUEST_OPS_STUB state. Ignoring SetOpsStub callback");
    return;
  }
  if (!stub) {
    const long delay = retry_policy_.NextDelay();
    ZLOG_DEBUG("CoveDbClient: failed to get ops stub to %s, retrying in %li ms...", endpoint_.c_str(), delay);
    RequestAgain(&CoveDbClient::RequestOpsStub, "RequestOpsStub", delay);
    return;
  }
  ZLOG_DEBUG("CoveDbClient: got ops stub to %s", endpoint_.c_str());
  ops_stub_ = std::move(stub);
  ChangeState(State::REQUEST_DAEMON_HEALTH_STUB);
}

void CoveDbClient::SetDaemonHealthStub(std::optional<DaemonHealth::Stub> stub) {
  if (state_ != State::REQUEST_DAEMON_HEALTH_STUB) {
    ZLOG_DEBUG(
        "CoveDbClient: not in REQUEST_DAEMON_HEALTH_STUB state. Ignoring SetDaemonHealthStub callback");
    return;
  }
  if (!stub) {
    const long delay = retry_policy_.NextDelay();
    ZLOG_DEBUG("CoveDbClient: failed to get daemon health stub to %s, retrying in %li ms...",
               endpoint_.c_str(), delay);
    RequestAgain(&CoveDbClient::RequestDaemonHealthStub, "RequestDaemonHealthStub", delay);
    return;
  }
  ZLOG_DEBUG("CoveDbClient: got daemon health stub to %s", endpoint_.c_str());
  daemon_health_stub_ = std::move(stub);
  ChangeState(State::CONNECTED);
}

void CoveDbClient::OnRpcStreamDown(rpc::CloseReason reason) {
  const StateLock lock(*state_mutex_);
  ZLOG_DEBUG("CoveDbClient::OnRpcStreamDown: %s", rpc::CloseReasonToCStr(reason));
  ChangeState(State::DISCONNECTED);
}

void CoveDbClient::AddChannelStatusCallback(ChannelStatusCallback callback) {
  const StateLock lock(*state_mutex_);
  channel_status_callbacks_.push_back(callback);
  callback(covedb_stub_.has_value());
}

void CoveDbClient::NotifyChannelStatus(bool up) {
  // A callback may add another one, which that call informs itself; the vector may move.
  const size_t count = channel_status_callbacks_.size();
  for (size_t i = 0; i < count; ++i) {
    const ChannelStatusCallback callback = channel_status_callbacks_[i];
    callback(up);
  }
}

// --- Writes.

void CoveDbClient::Modify(std::list<ModifyRequestMsg> requests, std::function<void()> done) {
  const StateLock lock(*state_mutex_);
  modify_queue_.Append(std::move(requests), std::move(done));
  SendModifyRequest();
}

void CoveDbClient::SendModifyRequest() {
  if (!covedb_stub_) return;
  ModifyQueue::Entry* const batch = modify_queue_.TakeBatch();
  if (batch == nullptr) return;
  if (schema_check_) {
    server_schema_.ModifyMsgVersionCheck(*batch->requests);
    if (batch->requests->empty()) return modify_queue_.PopFront();
  }
  ZLOG_DEBUG("Sending modification %s to CoveDb", ShortText(*batch->requests).c_str());
  struct Nothing {};
  auto* const observer = new ResponseObserver<ModifyResponseMsg, Nothing>(
      "modify", "Received Modify response", [](const ModifyResponseMsg&, Nothing&) {},
      [weak = weak_from_this(), callbacks = batch->callbacks](Nothing&, const rpc::Status& status) {
        if (const auto client = weak.lock()) {
          client->OnModifyStatus(callbacks, status);
        } else {
          ZLOG_DEBUG("CoveDbClient is already destroyed");
        }
      });
  rpc::client::AsyncBatchCall(covedb_stub_->channel(), CoveDb::Stub::rpcmethod_Modify, context_,
                              std::shared_ptr<const ModifyQueue::Requests>(batch->requests), observer);
}

void CoveDbClient::OnModifyStatus(const ModifyQueue::Callbacks& callbacks, const rpc::Status& status) {
  const ObserverLock lock(*this);
  ModifyQueue::Entry* const batch = modify_queue_.Front();
  if (batch != nullptr && status.ok()) {
    ZLOG_DEBUG("Successfully modified %s, removing from pending_modification_requests",
               ShortText(*batch->requests).c_str());
    modify_queue_.PopFront();
    for (const auto& callback : callbacks) {
      if (callback) callback();
    }
  } else if (batch != nullptr && !batch->requests->empty()) {
    ZLOG_INFO("Failed to modify %s. Server returned an error status %s.Changing send status to false",
              ShortText(*batch->requests).c_str(), status.ToString().c_str());
    batch->sent = false;
  } else if (batch != nullptr) {
    ZLOG_INFO("Modify request is empty. Server returned an error status %s.Canceling the request.",
              status.ToString().c_str());
    modify_queue_.PopFront();
  }
  if (IsUnrecoverable(status)) {
    ZLOG_TAGGED(kLogError, "NDB100",
                "Server reported error due to invalid client request, unrecoverable on client!");
    exit_(1);
  } else if (status.code() != static_cast<int>(StatusCode::kChannelDown)) {
    SendModifyRequest();
  }
}

bool CoveDbClient::IsPendingModificationReqEmpty() const {
  const StateLock lock(*state_mutex_);
  return modify_queue_.empty();
}

}  // namespace zem::covedb
