#include "app/healthcheck/health_check.h"

#include <chrono>

#include "app/healthcheck/vlan_mtu_checker.h"
#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"

namespace zem::Tarvik {
namespace {

using orlane::zem::healthcheck::HealthCheckRequestMsg;

constexpr LogSource kLog{"tarvik", "healthcheck"};

constexpr size_t kMostWaiting = 32;
constexpr auto kPollPeriod = std::chrono::milliseconds(300);
constexpr auto kEvictPeriod = std::chrono::seconds(2);
constexpr auto kEvictAge = std::chrono::seconds(1801);

}  // namespace

HealthCheck::HealthCheck(AsioZemProvider& provider, std::string library)
    : provider_(provider),
      library_(std::move(library)),
      waiting_(kMostWaiting),
      vertical_(provider, GetVertical(VerticalId::kHealthCheck),
                {.intercept =
                     [this](const VerticalRecord& record) {
                       Receive(record);
                       return true;
                     }}),
      reports_(vertical_) {}

HealthCheck::~HealthCheck() = default;

void HealthCheck::Start() {
  ZLOG_INFO("Health Check App start!");
  MakeChecker();
  worker_.Start();
  Init();
  vertical_.Start();
}

void HealthCheck::MakeChecker() {
  auto post = [weak = weak_from_this()](std::function<void()> task) {
    const auto self = weak.lock();
    // While it runs, the task holds the application: what hangs in the library still has what it uses.
    return self != nullptr && self->worker_.Post([weak, task = std::move(task)] {
      if (const auto running = weak.lock()) task();
    });
  };
  auto checker = std::make_shared<VlanMtuChecker>(provider_, reports_, std::move(post), library_);
  if (checker->Init()) checker_ = std::move(checker);
}

void HealthCheck::Init() {
  poll_timer_ = provider_.timers().ScheduleRepeated(
      kPollPeriod,
      [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->PostPoll();
      },
      TimerOptions::Default);
  evict_timer_ = provider_.timers().ScheduleRepeated(
      kEvictPeriod,
      [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->Evict();
      },
      TimerOptions::Default);
}

void HealthCheck::Stop() {
  stopping_ = true;
  if (checker_) checker_->Stop();
  vertical_.Stop();
  if (poll_timer_) poll_timer_->Cancel();
  if (evict_timer_) evict_timer_->Cancel();
  worker_.Stop();
}

void HealthCheck::Receive(const VerticalRecord& record) {
  if (record.type() != kRmqMpRpcRequest) {
    ZLOG_INFO("Received unsupported message from MP/SN %d", record.type());
    return;
  }
  ZLOG_INFO("Received RPC request from MP/SN");
  if (record.raw.routing_key != nullptr) ZLOG_DEBUG("Routing key: %s", record.raw.routing_key);
  if (record.raw.content_type != nullptr) ZLOG_DEBUG("Content type: %s", record.raw.content_type);
  ZLOG_DEBUG("Payload len: %lld", static_cast<long long>(record.raw.payload_len));
  HealthCheckRequestMsg request;
  const std::string_view payload = record.payload();
  if (!request.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
    ZLOG_ERROR("MPA00105", "Failed to parse MPA message payload");
    return;
  }
  if (!Accept(FillResponse(record, std::move(request))))
    ZLOG_ERROR("OPS04001", "Failed to prepare RPC response");
}

PendingResponse HealthCheck::FillResponse(const VerticalRecord& record, HealthCheckRequestMsg request) const {
  ZLOG_INFO("[%s] correlationId is %s", __func__, record.header.correlation_id.c_str());
  ZLOG_INFO("[%s] replyTo is %s", __func__, record.header.reply_to.c_str());
  return {.reply_to = record.header.reply_to,
          .correlation_id = record.header.correlation_id,
          .request = std::move(request)};
}

bool HealthCheck::Accept(const PendingResponse& response) {
  const std::string round = UuidText(response.request.round_id());
  // The entry may be taken and served as soon as it is told of, and the table's copy goes with it.
  PendingResponse waiting = response;
  using Added = decltype(waiting_)::Added;
  switch (waiting_.Add(round, std::move(waiting))) {
    case Added::kFull:
      ZLOG_INFO("Too many incoming health check request");
      reports_.Answer(response, HealthReports::kTooMany);
      return false;
    case Added::kExists:
      ZLOG_INFO("Duplicated RPC response detected");
      reports_.Answer(response, HealthReports::kDuplicate);
      return false;
    case Added::kAdded:
      break;
  }
  reports_.Answer(response, HealthReports::kAccepted);
  waiting_.Change(round, [](PendingResponse& entry) { entry.answered = true; });
  return true;
}

void HealthCheck::PostPoll() {
  if (waiting_.size() == 0 || poll_posted_.exchange(true)) return;
  const bool posted = worker_.Post([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->Poll();
  });
  if (!posted) poll_posted_ = false;
}

void HealthCheck::Poll() {
  poll_posted_ = false;
  // One by one: behind a switch library that hangs, the others still wait, are counted and are evicted.
  for (size_t left = waiting_.size(); left > 0 && !stopping_; --left) {
    auto response = waiting_.TakeFirst([](const PendingResponse& entry) { return entry.answered; });
    if (!response) return;
    if (checker_ && checker_->Supports(response->request) && checker_->Accepts(response->request)) {
      checker_->Check(std::move(*response));
    } else {
      reports_.PublishStatus(*response, HealthReports::kNoChecker);
    }
  }
}

void HealthCheck::Evict() {
  for (const PendingResponse& response : waiting_.TakeOlder(kEvictAge)) {
    ZLOG_INFO("Health check request round %s is evicted", UuidText(response.request.round_id()).c_str());
    reports_.PublishStatus(response, HealthReports::kEvicted);
  }
}

}  // namespace zem::Tarvik
