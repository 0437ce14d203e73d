#include "app/alarmsprovider/events/alarms_provider_queue.h"

#include <utility>

#include "framework/log/log.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

void LogEvent(const char* operation, const SharedEvent& event) {
  ZLOG_DEBUG("%s entered", operation);
  if (event == nullptr) return;
  ZLOG_DEBUG(
      "sourceId: %s, qubioId: %s, featureId: %u, eventTypeId: %u, entityId: %s, status: %d, context: %s",
      event->source_id.c_str(), event->qubio_id.c_str(), event->feature_id, event->event_type_id,
      event->entity_id.c_str(), event->status, event->context.c_str());
}

}  // namespace

bool AlarmsProviderQueue::Push(SharedEvent event) {
  const size_t bytes = event->TextBytes();
  if (events_.size() >= kCapacity || text_bytes_ + bytes > kMaxTextBytes) return false;
  text_bytes_ += bytes;
  events_.push_back(std::move(event));
  return true;
}

SharedEvent AlarmsProviderQueue::Pop() {
  SharedEvent event;
  if (!events_.empty()) {
    event = std::move(events_.front());
    events_.pop_front();
    text_bytes_ -= event->TextBytes();
  }
  LogEvent(__func__, event);
  return event;
}

SharedEvent AlarmsProviderQueue::Peek() const {
  SharedEvent event = events_.empty() ? nullptr : events_.front();
  LogEvent(__func__, event);
  return event;
}

void AlarmsProviderQueue::Reset() {
  ZLOG_INFO("AlarmsProviderQueue resets");
  events_.clear();
  text_bytes_ = 0;
}

}  // namespace zem::Tarvik
