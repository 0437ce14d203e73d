#include "mpaclient/bus/bus_connection.h"

#include "framework/log/log.h"
#include "mpaclient/bus/bus_record.h"
#include "platform/core/clock.h"
#include "platform/core/thread_name.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"

namespace zem {
namespace {

constexpr LogSource kLog{"mpa-client"};

constexpr auto kReconnectAfterClose = std::chrono::microseconds(1000000);

// On the bus the connections of these verticals stand only once the ACK has come.
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

}  // namespace

BusConnection::BusConnection(AsioZemProvider& provider, Settings settings,
                             boost::intrusive_ptr<RmqClientInterface> bus)
    : provider_(provider),
      settings_(std::move(settings)),
      name_(settings_.app_type.c_str()),
      connections_(provider.metrics().frequency("rmq/connection/establish")),
      bus_(std::move(bus)) {}

BusConnection::~BusConnection() = default;

void BusConnection::ConnectMpaStateTrans() {
  uint64_t epoch = 0;
  {
    const std::lock_guard lock(mutex_);
    epoch = ++epoch_;
  }
  Connect(epoch);
}

void BusConnection::End() { EndRoad(nullptr); }

void BusConnection::Release() {
  boost::intrusive_ptr<RmqClientInterface> released;
  if (settings_.over_bus) {
    EndRoad(&released);
    return;
  }
  const std::lock_guard lock(mutex_);
  released.swap(bus_);
}

// Hands the bus library over when `released` is not null.
void BusConnection::EndRoad(boost::intrusive_ptr<RmqClientInterface>* released) {
  boost::intrusive_ptr<RmqClientInterface> bus;
  int32_t cookie = -1;
  {
    const std::lock_guard lock(mutex_);
    ++epoch_;
    std::swap(cookie, cookie_);
    if (reconnect_timer_) reconnect_timer_->Cancel();
    reconnect_timer_.reset();
    SetStatusLocked(Status::kDown);
    bus = bus_;
    if (released != nullptr) released->swap(bus_);
  }
  if (cookie > 0 && bus) bus->CloseClient(cookie);
}

int BusConnection::Send(rmqClientMessage* message) {
  boost::intrusive_ptr<RmqClientInterface> bus;
  {
    const std::shared_lock lock(mutex_);
    bus = bus_;
  }
  if (!bus) return -1;
  const int result = bus->SendToVSM(message);
  if (result != 0) {
    ZLOG_ERROR("00103", "%s failed to send message to MPA", name_);
  } else {
    ZLOG_DEBUG("%s sent message to MPA", name_);
  }
  return result;
}

BusConnection::Status BusConnection::WithRoad(Status status, State state) {
  const bool acknowledged = status == Status::kAcknowledged || status == Status::kAcknowledgedNoRoad;
  if (state == kConnected) return acknowledged ? Status::kAcknowledged : Status::kUp;
  return acknowledged ? Status::kAcknowledgedNoRoad : Status::kDown;
}

void BusConnection::SetStatusLocked(Status status) {
  const State before = state_word();
  status_ = status;
  if (state_word() != before) since_ = Clock::Process().Now();
}

Duration BusConnection::state_age() const {
  const std::shared_lock lock(mutex_);
  return Clock::Process().Now() - since_;
}

void BusConnection::SetRoad(State state) {
  const std::lock_guard lock(mutex_);
  SetStatusLocked(WithRoad(status_, state));
}

void BusConnection::TakeAck() {
  const std::lock_guard lock(mutex_);
  SetThreadName("ops:Active");
  SetStatusLocked(Status::kAcknowledged);
}

bool BusConnection::TakeClose(int32_t cookie) {
  uint64_t epoch = 0;
  {
    const std::lock_guard lock(mutex_);
    if (cookie != cookie_) {
      ZLOG_ERROR("00101", "[%s] Message's cookieId [%d] does not match with [%d], ignored\n", name_, cookie,
                 cookie_);
      return false;
    }
    ZLOG_INFO("[%s] Got CLIENT CLOSE Message for cookie:[%d], disconnected from MPA\n", name_, cookie_);
    SetThreadName("ops:Inactive");
    if (state_word() != kConnected) {
      ZLOG_WARN("[%s] Got CLOSE Message in state %d\n", name_, static_cast<int>(state_word()));
    }
    SetStatusLocked(Status::kDown);
    cookie_ = -1;
    epoch = epoch_;
  }
  ScheduleTimer(kReconnectAfterClose, epoch);
  return true;
}

bool BusConnection::acknowledged() const {
  const std::shared_lock lock(mutex_);
  return IsAcknowledged();
}

BusConnection::State BusConnection::state() const {
  const std::shared_lock lock(mutex_);
  return state_word();
}

int32_t BusConnection::cookie() const {
  const std::shared_lock lock(mutex_);
  return cookie_;
}

void BusConnection::Connect(uint64_t epoch) {
  const std::lock_guard connect_lock(connect_mutex_);
  int32_t stale = -1;
  boost::intrusive_ptr<RmqClientInterface> bus;  // kept over the attempt, whoever releases it meanwhile
  {
    const std::lock_guard lock(mutex_);
    if (epoch != epoch_) return;
    bus = bus_;
    reconnect_timer_.reset();
    if (status_ == Status::kAcknowledged) {
      ZLOG_INFO("[%s] Already connected to mpa, cookie:[%d]\n", name_, cookie_);
      return;
    }
    if (status_ == Status::kUp && cookie_ > 0) {
      ZLOG_DEBUG("[%s] Already conncted to [%d] but didn't receive RMQ_CLIENT_REGISTRATION_ACK. \n", name_,
                 cookie_);
      SetStatusLocked(Status::kDown);
      std::swap(stale, cookie_);
    }
  }
  if (!bus) return;
  if (stale > 0) bus->CloseClient(stale);
  ZLOG_DEBUG("[%s] Connecting to mpa...\n", name_);
  const int32_t cookie = bus->InitNETClient(settings_.app_id.c_str(), name_,
                                            static_cast<int>(settings_.client_type), settings_.deliver);
  if (cookie < 0) {
    ZLOG_WARN("[%s] connecting to mpa return cookie [%s]\n", name_, BusErrorName(cookie));
    ScheduleTimer(settings_.retry_timeout, epoch);
    return;
  }
  bool ended = false;
  {
    const std::lock_guard lock(mutex_);
    ended = epoch != epoch_;
    if (!ended) {
      SetStatusLocked(Status::kUp);
      cookie_ = cookie;
    }
  }
  if (ended) {
    bus->CloseClient(cookie);
    return;
  }
  connections_.Mark();
  ZLOG_INFO("[%s] Connected to mpa, cookie:[%d]\n", name_, cookie);
  if (WaitsForAck(settings_.app_type)) {
    ZLOG_INFO("[%s] need to retry connection since ACK not received ..", name_);
    ScheduleTimer(settings_.ack_timeout, epoch);
  }
}

void BusConnection::ScheduleTimer(std::chrono::microseconds delay, uint64_t epoch) {
  const std::lock_guard lock(mutex_);
  if (epoch != epoch_) return;
  if (reconnect_timer_) reconnect_timer_->Cancel();
  reconnect_timer_.reset();
  if (!settings_.over_bus) {
    ZLOG_INFO("%s zem-rpc enabled. mpa client won't re-connect with rmqClient.", name_);
    return;
  }
  reconnect_timer_ =
      provider_.timers().Schedule(delay, [weak = weak_from_this(), name = settings_.app_type, epoch] {
        ZLOG_INFO("%s Mpa reconnect timeout", name.c_str());
        if (const auto self = weak.lock()) self->Connect(epoch);
      });
  ZLOG_INFO("[%s] ScheduleTimer after %lu microseconds\n", name_, static_cast<unsigned long>(delay.count()));
}

}  // namespace zem
