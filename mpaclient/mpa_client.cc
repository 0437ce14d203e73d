#include "mpaclient/mpa_client.h"

#include <cinttypes>
#include <cstdlib>

#include "framework/log/log.h"
#include "mpaclient/client_factory.h"
#include "mpaclient/mpa_client_app_specific.h"
#include "mpaclient/tn_proxy_client_common.h"
#include "mpaclient/verticals.h"
#include "platform/core/clock.h"
#include "platform/core/thread_name.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "proto/messaging/messaging.pb.h"

namespace zem {
namespace {

constexpr LogSource kLog{"mpa-client"};

constexpr uint64_t kReconnectAfterCloseUs = 1000000;
constexpr auto kSlowCallback = std::chrono::milliseconds(250);
constexpr size_t kMaxDumpedBytes = 4096;

// On the bus a connection of these stands only once the ACK has come.
constexpr const char* kVerticalsThatWaitForAck[] = {
    "SwitchingVertical",
    "ControllerMgmtVertical",
    "SimpleL2Vertical",
    "HostNodeStatusVertical",
    "FabricStats",
    "AggSvc-Routing",
    "AggSvc-L2-Switching",
    "AggSvc-L2-Bridging",
    "DFWRuleStats",
    "AggSvc-L4L7",
    "AggSvc-Lb",
    "AggSvc-Vpn",
    "TransportNodeStatusVertical",
    "PBRStats",
    "SERVICE_FABRIC_APPLICATION",
    "Context-Health",
    "EdgeVertical",
    "HealthCheck",
    "INVENTORY_DISCOVERY_APPLICATION",
    "Traceflow",
    "CustomerVertical",
    "VMCD",
    "L3UD",
};

bool WaitsForAck(const std::string& name) {
  for (const char* each : kVerticalsThatWaitForAck) {
    if (name == each) return true;
  }
  return false;
}

struct Registry {
  std::shared_mutex mutex;  // guards the three maps
  std::map<std::string, std::shared_ptr<MpaClient>> clients;
  std::map<std::string, uint64_t> ack_timeouts_us;
  std::map<std::string, uint64_t> retry_timeouts_us;
};

Registry& TheRegistry() {
  static Registry registry;
  return registry;
}

uint64_t AckTimeoutUs(const std::string& name) {
  std::shared_lock lock(TheRegistry().mutex);
  const auto found = TheRegistry().ack_timeouts_us.find(name);
  return found != TheRegistry().ack_timeouts_us.end() ? found->second : 30000000;
}

uint64_t RetryTimeoutUs(const std::string& name) {
  std::shared_lock lock(TheRegistry().mutex);
  const auto found = TheRegistry().retry_timeouts_us.find(name);
  return found != TheRegistry().retry_timeouts_us.end() ? found->second : 5000000;
}

std::function<boost::intrusive_ptr<RmqClientInterface>()>& BusFactory() {
  static std::function<boost::intrusive_ptr<RmqClientInterface>()> factory;
  return factory;
}

void DeliverFromBus(void*, rmqClientMessage* message) { MpaClient::Deliver(message); }

void DumpPayload(const rmqClientMessage& message) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const size_t size = std::min<size_t>(message.payload_len, kMaxDumpedBytes);
  std::string text;
  text.reserve(size * 3);
  for (size_t i = 0; i < size; ++i) {
    text.push_back(kDigits[message.payload[i] >> 4]);
    text.push_back(kDigits[message.payload[i] & 0xf]);
    text.push_back(' ');
  }
  ZLOG_DEBUG("%s", text.c_str());
}

}  // namespace

bool MpaClient::Register(AsioZemProvider& provider, ReceiveCallback callback, const std::string& name,
                         const std::string& id, uint32_t client_type, uint16_t port, uint64_t ack_timeout_us,
                         uint64_t retry_timeout_us) {
  ZLOG_INFO("%s Register mpa client", name.c_str());
  Registry& registry = TheRegistry();
  std::lock_guard lock(registry.mutex);
  if (registry.clients.contains(name)) {
    // Two services under one name would take each other's requests and answers.
    ZLOG_ERROR("00106", "%s is registered already, the second registration is refused", name.c_str());
    return false;
  }
  std::shared_ptr<MpaClient> client =
      MakeMpaClient({provider, std::move(callback), name, id, client_type, port});
  client->self_ = client;
  registry.clients[name] = client;
  registry.ack_timeouts_us[name] = ack_timeout_us;
  registry.retry_timeouts_us[name] = retry_timeout_us;
  client->CreateAppSpecificInstance(client);
  client->CreateBusClient();
  return true;
}

std::shared_ptr<MpaClient> MpaClient::Get(const std::string& name) {
  Registry& registry = TheRegistry();
  std::shared_lock lock(registry.mutex);
  const auto found = registry.clients.find(name);
  return found != registry.clients.end() ? found->second : nullptr;
}

void MpaClient::Unregister(const std::string& name) {
  ZLOG_INFO("%s UnRegister mpa client", name.c_str());
  std::shared_ptr<MpaClient> client;
  {
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    const auto found = registry.clients.find(name);
    if (found == registry.clients.end()) return;
    client = std::move(found->second);
    registry.clients.erase(found);
    registry.ack_timeouts_us.erase(name);
    registry.retry_timeouts_us.erase(name);
  }
  client->ReleaseBusClient();
  if (client->proxy_client_) client->proxy_client_->RemoveClient(name);
  client->ReleaseAppSpecificInstance();
}

std::vector<std::pair<std::string, std::shared_ptr<MpaClient>>> MpaClient::All() {
  Registry& registry = TheRegistry();
  std::shared_lock lock(registry.mutex);
  return {registry.clients.begin(), registry.clients.end()};
}

MpaClient::MpaClient(AsioZemProvider& provider, ReceiveCallback callback, std::string name, std::string id,
                     uint32_t client_type, uint16_t port)
    : provider_(provider),
      app_type_(std::move(name)),
      app_id_(std::move(id)),
      client_type_(client_type),
      port_(port),
      receive_callback_(std::move(callback)),
      proxy_client_(TnProxyClientCommon::getInstance()),
      connections_(provider.metrics().frequency("rmq/connection/establish")),
      received_(provider.metrics().frequency("rmq/msg/rx", "app=" + app_type_)),
      sent_(provider.metrics().frequency("rmq/msg/tx", "app=" + app_type_)),
      app_init_retry_(10000, 30000, 2.0, -1) {}

MpaClient::~MpaClient() = default;

void MpaClient::Start(UuidCallback uuid_callback) {
  ZLOG_INFO("[%s] Starting MPA client thread...\n", app_type_.c_str());
  uuid_callback_ = std::move(uuid_callback);
  if (Get(app_type_) == nullptr) return;
  if (port_ == kBusPort) {
    uint64_t attempts = 0;
    {
      std::lock_guard lock(connection_mutex_);
      attempts = ++bus_epoch_;
    }
    ConnectMpaStateTrans(attempts);
    return;
  }
  ZLOG_DEBUG("[%s] Calling RegisterWithTnProxyClient\n", app_type_.c_str());
  RegisterWithTnProxyClient();
}

void MpaClient::Stop() {
  if (port_ == kBusPort) EndBusRoad(nullptr);
  HandleClose();
}

// An attempt that is under way finds another epoch when it comes back, and closes what it has opened.
void MpaClient::EndBusRoad(boost::intrusive_ptr<RmqClientInterface>* released) {
  boost::intrusive_ptr<RmqClientInterface> bus;
  int32_t cookie = -1;
  {
    std::lock_guard lock(connection_mutex_);
    ++bus_epoch_;
    std::swap(cookie, cookie_);
    if (reconnect_timer_) reconnect_timer_->Cancel();
    reconnect_timer_.reset();
    connection_state_ = kDisconnected;
    connected_ = false;
    bus = bus_client_;
    if (released != nullptr) released->swap(bus_client_);
  }
  if (cookie > 0 && bus) bus->CloseClient(cookie);
}

boost::intrusive_ptr<RmqClientInterface> MpaClient::bus_client() const {
  std::shared_lock lock(connection_mutex_);
  return bus_client_;
}

void MpaClient::HandleClose() {
  ZLOG_DEBUG("[%s] HandleClose", app_type_.c_str());
  std::lock_guard lock(app_init_mutex_);
  CancelAppInitTimersLocked();
  app_init_completed_ = false;
}

int MpaClient::SendMessage(rmqClientMessage* message) { return SendMessageTo(message, "", nullptr); }

int MpaClient::SendMessageTo(rmqClientMessage* message, const std::string& aph, SendFailure* why) {
  SendFailure failure = SendFailure::kNone;
  const bool over_bus = port_ == kBusPort && aph.empty();
  const int result = over_bus ? SendOverBus(message) : SendMsgViaTnProxy(message, aph, &failure);
  if (over_bus && result != 0) failure = SendFailure::kRefused;
  if (why != nullptr) *why = failure;
  if (result == 0) sent_.Mark();
  return result;
}

int MpaClient::SendOverBus(rmqClientMessage* message) {
  const auto bus = bus_client();
  if (!bus) return -1;
  const int result = bus->SendToVSM(message);
  if (result != 0) {
    ZLOG_ERROR("00103", "%s failed to send message to MPA", app_type_.c_str());
  } else {
    ZLOG_DEBUG("%s sent message to MPA", app_type_.c_str());
  }
  return result;
}

std::map<std::string, bool> MpaClient::Aphs() const {
  return proxy_client_ ? proxy_client_->aphs() : std::map<std::string, bool>();
}

bool MpaClient::IsConnected() const {
  std::shared_lock lock(connection_mutex_);
  return connected_;
}

MpaClient::ConnectionState MpaClient::connection_state() const {
  std::shared_lock lock(connection_mutex_);
  return connection_state_;
}

int32_t MpaClient::cookie() const {
  std::shared_lock lock(connection_mutex_);
  return cookie_;
}

void MpaClient::SetConnectionState(ConnectionState state) {
  std::lock_guard lock(connection_mutex_);
  connection_state_ = state;
}

void MpaClient::updateStubMap() { ZLOG_INFO("[%s] RPC Service Not Implemented.", app_type_.c_str()); }
void MpaClient::AppInitHandshake() { ZLOG_INFO("Not Implemented"); }
void MpaClient::CreateAppSpecificInstance(const std::shared_ptr<MpaClient>&) { ZLOG_INFO("Not Implemented"); }
void MpaClient::ReleaseAppSpecificInstance() { ZLOG_INFO("Not Implemented"); }
void MpaClient::RegisterWithTnProxyClient() { ZLOG_INFO("Not Implemented"); }
void MpaClient::CleanUpForStubs() { ZLOG_INFO("Not Implemented"); }

rpc::CallHandle<MpaClient::GenericUnifiedMsg> MpaClient::GetFromAppSpecificSeqToCallHandleMap(uint32_t) {
  ZLOG_INFO("Not Implemented");
  return {};
}

int MpaClient::SendMsgViaTnProxy(rmqClientMessage*, const std::string&, SendFailure* why) {
  *why = SendFailure::kRefused;
  ZLOG_INFO("Not Implemented");
  return -1;
}

int MpaClient::MsgHandler(const GenericUnifiedMsg&, const std::string&,
                          rpc::CallObserver<VoidMsg>* observer) {
  delete observer;
  ZLOG_INFO("Not Implemented");
  return -1;
}

int MpaClient::RpcMsgHandler(const GenericUnifiedMsg&, const std::string&,
                             rpc::CallObserver<GenericUnifiedMsg>* observer, uint32_t) {
  delete observer;
  ZLOG_INFO("Not Implemented");
  return -1;
}

void MpaClient::SetBusForTest(std::function<boost::intrusive_ptr<RmqClientInterface>()> make) {
  BusFactory() = std::move(make);
}

void MpaClient::CreateBusClient() {
  boost::intrusive_ptr<RmqClientInterface> bus = BusFactory() ? BusFactory()() : new RmqClient;
  std::lock_guard lock(connection_mutex_);
  bus_client_.swap(bus);
}

void MpaClient::ReleaseBusClient() {
  boost::intrusive_ptr<RmqClientInterface> released;
  if (port_ == kBusPort) {
    EndBusRoad(&released);
    return;
  }
  std::lock_guard lock(connection_mutex_);
  released.swap(bus_client_);
}

void MpaClient::Deliver(rmqClientMessage* message) {
  const std::string app_type = message->app_type != nullptr ? message->app_type : "";
  if (const auto client = Get(app_type)) {
    client->HandleMessage(message);
  } else {
    ZLOG_ERROR("00106", "No callback function for app type %s", app_type.c_str());
  }
  std::free(message->free_block);
  message->free_block = nullptr;
}

void MpaClient::HandleMessage(rmqClientMessage* message) {
  const char* const name = app_type_.c_str();
  ZLOG_DEBUG("[%s] Received Message from MPA [%d]\n", name, static_cast<int>(message->msg_type));
  received_.Mark();
  switch (message->msg_type) {
    case kRmqClientClose:
      if (!HandleBusClose(*message)) return;
      break;
    default:
      ZLOG_INFO("[%s] Got Message in app_type:[%s]\n", name, message->app_type);
      if (ZLOG_WANTS(kLogDebug)) {
        ZLOG_DEBUG("[%s] Routing key [%s], content type [%s], payload length [%" PRIu64 "]\n", name,
                   message->routing_key != nullptr ? message->routing_key : "",
                   message->content_type != nullptr ? message->content_type : "",
                   static_cast<uint64_t>(message->payload_len));
        const Vertical* const vertical = FindVertical(app_type_);
        const bool secret = vertical != nullptr && vertical->traits.secret;
        if (!secret && message->payload != nullptr) DumpPayload(*message);
      }
  }
  switch (message->msg_type) {
    case kRmqClientRegistrationAck: {
      ZLOG_INFO("Received client registration ACK from MPA, sending/receiving messages is enabled\n");
      std::lock_guard lock(connection_mutex_);
      SetThreadName("ops:Active");
      connected_ = true;
      connection_state_ = kConnected;
      break;
    }
    case kRmqClientPayload:
    case kRmqClientClose:
    case kRmqMpRpcRequest:
    case kRmqMpRpcResponse:
    case kRmqClientRpcResponse:
    case kRmqMpPublish:
      break;
    default:
      ZLOG_ERROR(
          "00104",
          "[%s] Unrecognized RMQ messageType [%d] from MPA. Disconnect from mpa due to unrecognized message. "
          "CookieId :%d\n",
          name, static_cast<int>(message->msg_type), message->cookie);
      return;
  }
  if (!receive_callback_) return;
  const TimePoint begin = Clock::Process().Now();
  receive_callback_(message);
  const auto took = Clock::Process().Now() - begin;
  if (took > kSlowCallback) {
    ZLOG_INFO("Vertical (%s) rx-callback took (%ld) msecs", name,
              static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()));
  }
}

bool MpaClient::HandleBusClose(const rmqClientMessage& message) {
  const char* const name = app_type_.c_str();
  uint64_t epoch = 0;
  {
    std::lock_guard lock(connection_mutex_);
    if (message.cookie != cookie_) {
      ZLOG_ERROR("00101", "[%s] Message's cookieId [%d] does not match with [%d], ignored\n", name,
                 message.cookie, cookie_);
      return false;
    }
    ZLOG_INFO("[%s] Got CLIENT CLOSE Message for cookie:[%d], disconnected from MPA\n", name, cookie_);
    SetThreadName("ops:Inactive");
    connected_ = false;
    if (connection_state_ == kConnected) {
      connection_state_ = kDisconnected;
    } else {
      ZLOG_WARN("[%s] Got CLOSE Message in state %d\n", name, static_cast<int>(connection_state_));
    }
    cookie_ = -1;
    epoch = bus_epoch_;
  }
  ScheduleTimer(kReconnectAfterCloseUs, epoch);
  return true;
}

void MpaClient::ConnectMpaStateTrans(uint64_t epoch) {
  const char* const name = app_type_.c_str();
  std::lock_guard connect_lock(connect_mutex_);
  int32_t stale = -1;
  boost::intrusive_ptr<RmqClientInterface> bus;  // kept over the attempt, whoever releases it meanwhile
  {
    std::lock_guard lock(connection_mutex_);
    if (epoch != bus_epoch_) return;
    bus = bus_client_;
    reconnect_timer_.reset();
    if (connection_state_ == kConnected) {
      if (connected_) {
        ZLOG_INFO("[%s] Already connected to mpa, cookie:[%d]\n", name, cookie_);
        return;
      }
      if (cookie_ > 0) {
        ZLOG_DEBUG("[%s] Already conncted to [%d] but didn't receive RMQ_CLIENT_REGISTRATION_ACK. \n", name,
                   cookie_);
        connection_state_ = kDisconnected;
        std::swap(stale, cookie_);
      }
    }
  }
  if (!bus) return;
  if (stale > 0) bus->CloseClient(stale);
  ZLOG_DEBUG("[%s] Connecting to mpa...\n", name);
  const int32_t cookie =
      bus->InitNETClient(app_id_.c_str(), app_type_.c_str(), static_cast<int>(client_type_), &DeliverFromBus);
  if (cookie < 0) {
    ZLOG_WARN("[%s] connecting to mpa return cookie [%s]\n", name, BusErrorName(cookie));
    ScheduleTimer(RetryTimeoutUs(app_type_), epoch);
    return;
  }
  bool ended = false;
  {
    std::lock_guard lock(connection_mutex_);
    ended = epoch != bus_epoch_;
    if (!ended) {
      connection_state_ = kConnected;
      connected_ = false;
      cookie_ = cookie;
    }
  }
  if (ended) {
    bus->CloseClient(cookie);
    return;
  }
  connections_.Mark();
  ZLOG_INFO("[%s] Connected to mpa, cookie:[%d]\n", name, cookie);
  if (WaitsForAck(app_type_)) {
    ZLOG_INFO("[%s] need to retry connection since ACK not received ..", name);
    ScheduleTimer(AckTimeoutUs(app_type_), epoch);
  }
}

void MpaClient::ScheduleTimer(uint64_t microseconds, uint64_t epoch) {
  std::lock_guard lock(connection_mutex_);
  if (epoch != bus_epoch_) return;
  if (reconnect_timer_) reconnect_timer_->Cancel();
  reconnect_timer_.reset();
  if (port_ != kBusPort) {
    ZLOG_INFO("%s zem-rpc enabled. mpa client won't re-connect with rmqClient.", app_type_.c_str());
    return;
  }
  reconnect_timer_ = provider_.timers().Schedule(std::chrono::microseconds(microseconds),
                                                 [weak = self_, name = app_type_, epoch] {
                                                   ZLOG_INFO("%s Mpa reconnect timeout", name.c_str());
                                                   if (const auto self = weak.lock())
                                                     self->ConnectMpaStateTrans(epoch);
                                                 });
  ZLOG_INFO("[%s] ScheduleTimer after %lu microseconds\n", app_type_.c_str(),
            static_cast<unsigned long>(microseconds));
}

}  // namespace zem
