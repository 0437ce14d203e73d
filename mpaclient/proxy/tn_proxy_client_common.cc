#include "mpaclient/proxy/tn_proxy_client_common.h"

#include <vector>

#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "platform/provider/timer.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"
#include "proto/messaging/messaging.pb.h"
#include "proto/messaging/messaging.rpc.h"

namespace zem {
namespace {

using orlane::zem::messaging::ApplProxyInfoReqMsg;
using orlane::zem::messaging::ApplProxyInfoRspMsg;
using orlane::zem::messaging::ApplProxyInfoService;

constexpr LogSource kLog{"tnproxy-client"};

constexpr int64_t kConnectTimeoutMs = 2000;
constexpr int64_t kStubTimeoutMs = 10000;
constexpr Duration kStubRetry = std::chrono::seconds(1);

// The retry policy of both connections.
rpc::ConnectionParams ToProxy() {
  const RetryPolicy policy(1000, 5000, 2.0, -1);
  rpc::ConnectionParams params;
  params.retry = policy;
  params.reconnect = rpc::ReconnectPolicy(rpc::ReconnectPolicy::kAlways, policy);
  params.options.timeout_ms = kConnectTimeoutMs;
  return params;
}

std::shared_ptr<TnProxyClientCommon>& Instance() {
  static std::shared_ptr<TnProxyClientCommon> instance;
  return instance;
}

std::mutex& InstanceMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

struct TnProxyClientCommon::InfoStub {
  ApplProxyInfoService::Stub stub;
};

// Observes one subscription; deletes itself when the call ends.
class TnProxyClientCommon::ApplProxyInfoObserver final : public rpc::CallObserver<ApplProxyInfoRspMsg> {
 public:
  ApplProxyInfoObserver(std::weak_ptr<TnProxyClientCommon> client, uint64_t subscription)
      : client_(std::move(client)), subscription_(subscription) {}

  void Next(const ApplProxyInfoRspMsg& message) override {
    if (const auto client = client_.lock()) {
      client->HandleProxyInfo(message);
    } else {
      ZLOG_ERROR("00108", "MPAClient has been destroyed already");
    }
  }

  void CallStatus(const rpc::Status& status) override {
    ZLOG_INFO("TnProxyClientCommon received status (%s)", status.ToString().c_str());
    if (const auto client = client_.lock()) client->SubscriptionEnded(subscription_);
    delete this;
  }

 private:
  const std::weak_ptr<TnProxyClientCommon> client_;
  const uint64_t subscription_;
};

void TnProxyClientCommon::Init(const std::string& client_id, const std::string& endpoint,
                               const std::string& stubs_endpoint) {
  ZLOG_INFO("TnProxyClientCommon Init - clientId (%s), EndPoint (%s), StubsEndPoint (%s)", client_id.c_str(),
            endpoint.c_str(), stubs_endpoint.c_str());
  std::lock_guard lock(InstanceMutex());
  if (!Instance()) Instance() = std::make_shared<TnProxyClientCommon>(client_id, endpoint, stubs_endpoint);
}

std::shared_ptr<TnProxyClientCommon> TnProxyClientCommon::getInstance() {
  ZLOG_DEBUG("TnProxyClientCommon getInstance ");
  std::lock_guard lock(InstanceMutex());
  return Instance();
}

void TnProxyClientCommon::Release() {
  std::shared_ptr<TnProxyClientCommon> dropped;
  std::lock_guard lock(InstanceMutex());
  dropped.swap(Instance());
}

TnProxyClientCommon::TnProxyClientCommon(std::string client_id, std::string endpoint,
                                         std::string stubs_endpoint)
    : client_id_(std::move(client_id)),
      endpoint_(std::move(endpoint)),
      stubs_endpoint_(std::move(stubs_endpoint)),
      info_connections_(info_provider_.rpc()),
      forwarding_connections_(forwarding_provider_.rpc()) {}

TnProxyClientCommon::~TnProxyClientCommon() = default;

void TnProxyClientCommon::Start() {
  {
    std::unique_lock lock(state_mutex_);
    if (started_) {
      lock.unlock();
      ZLOG_INFO("TnProxyClientCommon Start, Already started");
      return;
    }
    started_ = true;
    // Set before the first connection request, so that a stub that fails at once is tried again.
    stopped_ = false;
  }
  ZLOG_INFO("TnProxyClientCommon Start");
  info_provider_.RunAsync(1);
  forwarding_provider_.RunAsync(1);
  ConnectAndSubscribeForAphInfo();
  ConnectForForwarding();
}

void TnProxyClientCommon::ConnectAndSubscribeForAphInfo() {
  ZLOG_DEBUG("connectAndSubscribeForAphInfo Enter");
  rpc::ConnectionParams params = ToProxy();
  params.on_connected = [weak = weak_from_this()](const rpc::ConnectionInfo& info) {
    if (const auto self = weak.lock()) self->OnConnectionUp(info);
  };
  params.on_closed = [weak = weak_from_this()](rpc::CloseReason reason) {
    if (const auto self = weak.lock()) self->OnConnectionDown(reason);
  };
  ZLOG_INFO("Requesting connection for appl-proxy-info-service");
  if (info_connections_.RequestConnection(net::Endpoint(endpoint_), std::move(params))) {
    ZLOG_INFO("Request for a connection with TnProxy.");
  } else {
    ZLOG_INFO("Already a CK for connection to TnProxy.");
    GetStub();
  }
  ZLOG_DEBUG("connectAndSubscribeForAphInfo Exit");
}

void TnProxyClientCommon::OnConnectionUp(const rpc::ConnectionInfo& info) {
  ZLOG_INFO("Connected with TnProxy");
  ZLOG_DEBUG("TnProxyClientCommon connected with (%s)", info.text.c_str());
  {
    std::lock_guard lock(state_mutex_);
    info_connected_ = true;
    subscribed_ = false;
    retry_countdown_.Reset();
    if (retry_timer_) retry_timer_->Cancel();
    retry_timer_.reset();
  }
  GetStub();
}

void TnProxyClientCommon::OnConnectionDown(rpc::CloseReason reason) {
  ZLOG_INFO("Connection closed with TnProxy, reason: %s", rpc::CloseReasonToCStr(reason));
  std::unique_ptr<InfoStub> dropped;
  std::lock_guard lock(state_mutex_);
  info_connected_ = false;
  subscribed_ = false;
  stub_creation_enabled_ = false;
  dropped.swap(stub_);
}

void TnProxyClientCommon::GetStub() {
  ZLOG_INFO("TnProxyClientCommon GetStub");
  rpc::StubRequest request;
  request.source_id = client_id_;
  request.target = net::Endpoint(endpoint_);
  request.policy = RetryPolicy(kStubTimeoutMs, kStubTimeoutMs, 1.0, 0);
  request.timeout_ms = kStubTimeoutMs;
  info_provider_.rpc().stubs().create<ApplProxyInfoService::Stub>(
      std::move(request),
      [weak = weak_from_this()](std::optional<ApplProxyInfoService::Stub> stub, const rpc::Status&) {
        const auto self = weak.lock();
        if (!self) return;
        self->StubCreateDone(stub ? std::make_unique<InfoStub>(InfoStub{std::move(*stub)}) : nullptr);
      });
  ZLOG_INFO("TnProxyClientCommon GetStub : Stub creation scheduled for appl-proxy-info-service");
}

void TnProxyClientCommon::StubCreateDone(std::unique_ptr<InfoStub> stub) {
  if (!stub) {
    ZLOG_INFO("TnProxyClientCommon::StubCreateDone_: Stub creation failed");
    RetryStubLater();
    return;
  }
  ZLOG_INFO("TnProxyClientCommon::StubCreateDone_: Stub creation successful");
  ZLOG_INFO("Stub created for applProxyInfoService.");
  ApplProxyInfoService::Stub subscriber = stub->stub;
  uint64_t subscription = 0;
  {
    std::lock_guard lock(state_mutex_);
    stub_.swap(stub);
    subscribed_ = true;
    subscription = ++subscription_;
  }
  subscriber.Subscribe(rpc::ClientContext(client_id_), ApplProxyInfoReqMsg(),
                       new ApplProxyInfoObserver(weak_from_this(), subscription));
  ZLOG_INFO("ApplProxyInfoService: Subscribed.");
}

void TnProxyClientCommon::RetryStubLater() {
  bool start_over = false;
  {
    std::lock_guard lock(state_mutex_);
    if (stopped_) return;
    start_over = retry_countdown_.Failed();
    if (start_over) subscribed_ = false;
  }
  if (start_over) {
    const bool torn_down = info_connections_.TeardownConnection(net::Endpoint(endpoint_));
    ZLOG_INFO("TeardownConnection status:%d ", torn_down);
    ConnectAndSubscribeForAphInfo();
    return;
  }
  ZLOG_INFO("TnProxyClientCommon::StubCreateDone_: Starting timer for retry.");
  auto timer = info_provider_.timers().Schedule(kStubRetry, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->GetStub();
  });
  std::lock_guard lock(state_mutex_);
  retry_timer_ = std::move(timer);
  if (stopped_) retry_timer_->Cancel();
}

// When the connection is lost, the next one subscribes again; a subscription that ends while the connection
// lives is renewed here.  The two cases can be distinguished only after the lost connection has closed its
// channels.
void TnProxyClientCommon::SubscriptionEnded(uint64_t subscription) {
  info_provider_.dispatcher().Post([weak = weak_from_this(), subscription] {
    const auto self = weak.lock();
    if (!self) return;
    {
      std::lock_guard lock(self->state_mutex_);
      if (subscription != self->subscription_ || !self->info_connected_ || !self->subscribed_) return;
      self->subscribed_ = false;
    }
    self->RetryStubLater();
  });
}

void TnProxyClientCommon::HandleProxyInfo(const ApplProxyInfoRspMsg& message) {
  {
    std::lock_guard lock(map_mutex_);
    if (message.has_transport_node_id()) {
      tn_uuid_ = UuidText(message.transport_node_id());
      ZLOG_INFO("The TN uuid received in ApplProxyInfoRspMsg is: %s", tn_uuid_.c_str());
    }
    if (message.has_product_version()) {
      product_version_.emplace(message.product_version().major(), message.product_version().minor());
    }
  }
  if (message.aph().empty()) {
    ZLOG_INFO("ApplProxyInfoObserver: Empty Response.");
    return;
  }
  ZLOG_INFO("Receiving message: %s ", message.ShortDebugString().c_str());
  {
    std::lock_guard lock(map_mutex_);
    if (!aph_uuid_master_map_.empty()) {
      ZLOG_INFO("ApplProxyInfoObserver: Clearing aphUuidMasterMap_");
      aph_uuid_master_map_.clear();
    }
    int index = 0;
    for (const auto& aph : message.aph()) {
      if (!aph.has_id()) {
        ZLOG_ERROR("00104", "applProxyInfoMsg does not have id field");
        return;
      }
      if (!aph.has_master()) {
        ZLOG_ERROR("00104", "applProxyInfoMsg does not have master field");
        return;
      }
      const std::string id = UuidText(aph.id());
      ZLOG_INFO("uuid string (%d):%s ", index, id.c_str());
      ZLOG_INFO("flag (%d):%d ", index, aph.master());
      aph_uuid_master_map_[id] = aph.master();
      ++index;
    }
  }
  ZLOG_INFO("ApplProxyInfoObserver: Processed applProxyInfo Response.");
  bool forwarding = false;
  {
    std::lock_guard lock(state_mutex_);
    ZLOG_INFO("ApplProxyInfoObserver::Next TnProxyClientCommon Enabling Stub Creation!");
    stub_creation_enabled_ = true;
    forwarding = connected_for_forwarding_;
  }
  ZLOG_INFO("Invoking NotifyClients update_stubs:%d disconnect_mps:%d", forwarding, 0);
  NotifyClients(forwarding, false);
  ZLOG_DEBUG("ApplProxyInfoObserver: End.");
}

void TnProxyClientCommon::ConnectForForwarding() {
  rpc::ConnectionParams params = ToProxy();
  params.options.rpc = rpc::RpcConnectionOptions::Gateway(true, true);
  params.on_connected = [weak = weak_from_this()](const rpc::ConnectionInfo& info) {
    if (const auto self = weak.lock()) self->OnForwardingConnectionUp(info);
  };
  params.on_closed = [weak = weak_from_this()](rpc::CloseReason reason) {
    if (const auto self = weak.lock()) self->OnForwardingConnectionDown(reason);
  };
  ZLOG_INFO("Requesting connection for forwarding on %s", stubs_endpoint_.c_str());
  if (forwarding_connections_.RequestConnection(net::Endpoint(stubs_endpoint_), std::move(params))) {
    ZLOG_INFO("Connecting to TnProxy for forwarding.");
  } else {
    ZLOG_INFO("Already a CK for connection to TnProxy for forwarding.");
  }
}

void TnProxyClientCommon::OnForwardingConnectionUp(const rpc::ConnectionInfo& info) {
  ZLOG_INFO("Connected with TnProxy for forwarding");
  ZLOG_INFO("TnProxyClientCommon connected with (%s)", info.text.c_str());
  bool enabled = false;
  {
    std::lock_guard lock(state_mutex_);
    ZLOG_INFO("setting connectedForForwarding_ to true");
    connected_for_forwarding_ = true;
    enabled = stub_creation_enabled_;
  }
  ZLOG_INFO("OnForwardingConnectionUp Invoking NotifyClients");
  NotifyClients(enabled, true);
  ZLOG_INFO("OnForwardingConnectionUp: End");
}

void TnProxyClientCommon::OnForwardingConnectionDown(rpc::CloseReason reason) {
  ZLOG_INFO("Forwarding Connection closed with TnProxy, reason: %s", rpc::CloseReasonToCStr(reason));
  {
    std::lock_guard lock(state_mutex_);
    connected_for_forwarding_ = false;
  }
  std::vector<ConnectionDown> callbacks;
  {
    std::shared_lock lock(clients_mutex_);
    for (const auto& [name, callback] : connection_down_) callbacks.push_back(callback);
  }
  for (const auto& callback : callbacks) callback(reason);
}

// The callbacks are copied and called without a lock, because they send and ask this client for its state.
void TnProxyClientCommon::NotifyClients(bool update_stubs, bool connect_tn_proxy) {
  ZLOG_INFO("NotifyClients: %s %s", connect_tn_proxy ? "(CONNECT_TNPROXY)" : "",
            update_stubs ? "(UPDATE_STUB)" : "");
  std::vector<std::pair<std::string, ConnectionUp>> up;
  std::vector<std::pair<std::string, UpdateStubs>> update;
  {
    std::shared_lock lock(clients_mutex_);
    if (connect_tn_proxy) up.assign(connection_up_.begin(), connection_up_.end());
    if (update_stubs) update.assign(update_stubs_.begin(), update_stubs_.end());
  }
  for (const auto& [name, callback] : up) {
    ZLOG_INFO("NotifyClients: [%s] Invoking CONNECT_TNPROXY", name.c_str());
    callback();
  }
  for (const auto& [name, callback] : update) {
    ZLOG_INFO("NotifyClients: [%s] Invoking UPDATE_STUB", name.c_str());
    forwarding_provider_.dispatcher().Post(callback);
  }
}

void TnProxyClientCommon::Stop() {
  {
    std::lock_guard lock(state_mutex_);
    if (!started_) {
      ZLOG_INFO("TnProxyClientCommon Stop, Already stopped");
      return;
    }
    started_ = false;
    ZLOG_INFO("TnProxyClientCommon Stop, Begin");
    connected_for_forwarding_ = false;
    stopped_ = true;
    if (retry_timer_) retry_timer_->Cancel();
  }
  const bool info_closed = info_connections_.TeardownConnection(net::Endpoint(endpoint_));
  ZLOG_INFO("TeardownConnection %s status:%d ", endpoint_.c_str(), info_closed);
  const bool forwarding_closed = forwarding_connections_.TeardownConnection(net::Endpoint(stubs_endpoint_));
  ZLOG_INFO("Teardown Forwarding Connection %s status:%d ", stubs_endpoint_.c_str(), forwarding_closed);
  forwarding_provider_.StopAndWait(true);
  info_provider_.StopAndWait(true);
  std::unique_ptr<InfoStub> dropped;
  {
    std::lock_guard lock(state_mutex_);
    dropped.swap(stub_);
  }
  ZLOG_INFO("TnProxyClientCommon Stop, End");
}

void TnProxyClientCommon::SetTnProxyConnectionUp(const std::string& name, ConnectionUp callback) {
  ZLOG_INFO("[%s] TnProxyClientCommon SetTnProxyConnectionUp", name.c_str());
  // The callback is entered first, so that it does not miss a connection that comes up meanwhile.
  {
    std::lock_guard lock(clients_mutex_);
    connection_up_[name] = callback;
  }
  if (connected_for_forwarding()) forwarding_provider_.dispatcher().Post(std::move(callback));
}

void TnProxyClientCommon::SetTnProxyConnectionDown(const std::string& name, ConnectionDown callback) {
  ZLOG_INFO("[%s] TnProxyClientCommon SetTnProxyConnectionDown", name.c_str());
  std::lock_guard lock(clients_mutex_);
  connection_down_[name] = std::move(callback);
}

void TnProxyClientCommon::SetUpdateStubs(const std::string& name, UpdateStubs callback) {
  ZLOG_INFO("[%s] TnProxyClientCommon SetUpdateStubs", name.c_str());
  {
    std::lock_guard lock(clients_mutex_);
    update_stubs_[name] = callback;
  }
  bool missed = false;
  {
    std::shared_lock lock(state_mutex_);
    missed = connected_for_forwarding_ && stub_creation_enabled_;
  }
  if (missed) forwarding_provider_.dispatcher().Post(std::move(callback));
}

void TnProxyClientCommon::RemoveClient(const std::string& name) {
  ZLOG_INFO("TnProxyClientCommon %s", name.c_str());
  {
    std::lock_guard lock(clients_mutex_);
    connection_up_.erase(name);
    connection_down_.erase(name);
    update_stubs_.erase(name);
  }
  ZLOG_INFO("TnProxyClientCommon Client %s removed.", name.c_str());
}

std::string TnProxyClientCommon::getTnUuidStr() const {
  std::shared_lock lock(map_mutex_);
  ZLOG_DEBUG("TnProxyClientCommon::getTnUuidStr: %s", tn_uuid_.c_str());
  return tn_uuid_;
}

TnProxyClientCommon::AphMap TnProxyClientCommon::aphs() const {
  std::shared_lock lock(map_mutex_);
  return aph_uuid_master_map_;
}

bool TnProxyClientCommon::connected_for_forwarding() const {
  std::shared_lock lock(state_mutex_);
  return connected_for_forwarding_;
}

bool TnProxyClientCommon::GetMpVersion(uint32_t* major, uint32_t* minor) const {
  std::shared_lock lock(map_mutex_);
  if (!product_version_) return false;
  *major = product_version_->first;
  *minor = product_version_->second;
  return true;
}

}  // namespace zem
