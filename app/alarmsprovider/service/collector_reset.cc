#include "app/alarmsprovider/service/collector_reset.h"

#include <chrono>
#include <utility>

#include "app/alarmsprovider/collector/node_id_cache.h"
#include "framework/log/log.h"
#include "mpaclient/bus/bus_record.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "proto/monitoring/monitoring.pb.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

}  // namespace

CollectorReset::CollectorReset(AsioZemProvider& provider, CollectorSender& sender, NodeIdCache& ids,
                               std::function<void()> done)
    : provider_(provider), sender_(sender), ids_(ids), done_(std::move(done)) {}

void CollectorReset::Start() {
  ZLOG_INFO("Starting Reset timer");
  const std::lock_guard lock(mutex_);
  ScheduleLocked();
}

void CollectorReset::Stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  if (timer_) timer_->Cancel();
}

void CollectorReset::ScheduleLocked() {
  timer_ =
      provider_.timers().Schedule(std::chrono::milliseconds(delays_.NextDelay()), [self = weak_from_this()] {
        if (const auto alive = self.lock()) alive->Send();
      });
}

bool CollectorReset::done() {
  const std::lock_guard lock(mutex_);
  return reset_done_;
}

void CollectorReset::Send() {
  const std::lock_guard lock(mutex_);
  if (reset_done_ || stopped_) return;
  const std::string node = ids_.GetNodeUuid(true);
  const std::string endpoint = ids_.GetEndpointId();
  if (!node.empty() && !endpoint.empty()) {
    orlane::zem::monitoring::CollectorMpMsg message;
    message.set_msg_type(CollectorMpType::kReset);
    auto* const request = message.mutable_reset_request();
    if (const auto id = ParseUuid(node)) SetUuid(*id, request->mutable_node_id());
    if (const auto id = ParseUuid(endpoint)) SetUuid(*id, request->mutable_endpoint_id());
    correlation_id_ = RandomUuidText();
    if (sender_.SendToCollector(message, correlation_id_, kRmqClientRpcRequest)) {
      ZLOG_INFO("Sent reset msg with correlation-id: %s", correlation_id_.c_str());
    } else {
      ZLOG_INFO("Error sending reset msg");
    }
  }
  ScheduleLocked();
}

void CollectorReset::HandleResponse(const std::string& correlation_id, bool result) {
  {
    const std::lock_guard lock(mutex_);
    if (correlation_id_.empty() || correlation_id != correlation_id_ || stopped_) return;
    ZLOG_INFO("Reset result: %s", result ? "true" : "false");
    if (!result) return;
    if (timer_) timer_->Cancel();
    reset_done_ = true;
    correlation_id_.clear();
  }
  done_();
}

}  // namespace zem::Tarvik
