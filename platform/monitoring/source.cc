#include "platform/monitoring/source.h"

#include <chrono>
#include <utility>

#include "platform/monitoring/subscription.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"

namespace zem::monitoring {
namespace {

constexpr const char* kCustomizations = "/var/run/orlane/zem-monitoring/event_customizations.json";
constexpr auto kConfigPeriod = std::chrono::seconds(5);
constexpr auto kPollPeriod = std::chrono::seconds(60);

}  // namespace

EventSource::EventSource(const std::string& name, uint16_t feature_id)
    : callback_provider_(std::make_unique<AsioZemProvider>()),
      subscription_(std::make_shared<Subscription>(name, feature_id)),
      configs_(feature_id, kCustomizations) {}

EventSource::~EventSource() {
  if (!started_) return;
  callback_provider_->StopAndWait(false);
  subscription_->Stop();
}

void EventSource::SetConfigCallback(EventSourceConfigCallback callback) {
  config_callback_ = std::move(callback);
}

void EventSource::SetPollCallback(std::vector<uint16_t> event_types, EventSourcePollCallback callback) {
  polled_ = std::move(event_types);
  poll_callback_ = std::move(callback);
}

void EventSource::Start() {
  if (started_.exchange(true)) return;
  subscription_->Start();
  // Here, so that nothing is raised before its owner knows whether the event is disabled.
  if (config_callback_) ReadConfigs();
  callback_provider_->RunAsync(1);
  if (config_callback_) {
    callback_provider_->timers().ScheduleRepeated(
        kConfigPeriod, [this] { ReadConfigs(); }, TimerOptions::Default);
  }
  if (poll_callback_) {
    callback_provider_->timers().ScheduleRepeated(
        kPollPeriod, [this] { poll_callback_(polled_.data(), polled_.size()); }, TimerOptions::Default);
  }
}

void EventSource::ReadConfigs() {
  const std::vector<EventSourceConfig> changed = configs_.Changed();
  if (!changed.empty()) config_callback_(changed);
}

int EventSource::SetSample(uint16_t event_type_id, const EventSourceEntity& entity, bool raised,
                           const std::string& context) {
  if (!started_) return kEventSourceNotStarted;
  return subscription_->Set({event_type_id, entity.high, entity.low}, raised, context) ? kEventSourceOk
                                                                                       : kEventSourceFull;
}

int EventSource::RemoveEntities(uint16_t event_type_id, const EventSourceEntity* entities, size_t count) {
  if (!started_) return kEventSourceNotStarted;
  for (size_t i = 0; i < count; ++i) {
    subscription_->Clear({event_type_id, entities[i].high, entities[i].low});
  }
  return kEventSourceOk;
}

}  // namespace zem::monitoring
