#include "app/alarmsprovider/link/event_report_reader.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "app/alarmsprovider/events/queue_manager.h"
#include "app/alarmsprovider/events/reported_event.h"
#include "app/alarmsprovider/link/limits.h"
#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "proto/monitoring/monitoring_services.pb.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

using orlane::zem::monitoring::MonitoringEventFeatureReportMsg;
using orlane::zem::monitoring::MonitoringEventInstanceStatusMsg;
using orlane::zem::monitoring::MonitoringEventTypeStatusMsg;
using orlane::zem::monitoring::MonitoringProcessEventReportRequestMsg;

constexpr const char* kOperation = "ProcessEventReport";
constexpr int kEventsPerBlock = 256;

template <class Number>
bool Fits(uint32_t value) {
  return value <= std::numeric_limits<Number>::max();
}

bool IsTooLarge(const MonitoringProcessEventReportRequestMsg& report) {
  for (const MonitoringEventFeatureReportMsg& feature : report.event_feature_report()) {
    if (feature.source_id().size() > kMaxIdBytes || feature.qubio_id().size() > kMaxIdBytes) return true;
    for (const MonitoringEventTypeStatusMsg& type : feature.event_type_status()) {
      for (const auto& instance : type.event_instance_status()) {
        if (instance.context().size() > kMaxContextBytes) return true;
      }
    }
  }
  return false;
}

// Copies an instance; returns false, after a log line, when its status is none.
bool ReadInstance(const MonitoringEventFeatureReportMsg& feature, const MonitoringEventTypeStatusMsg& type,
                  const MonitoringEventInstanceStatusMsg& instance, ReportedEvent* event) {
  if (!Fits<uint8_t>(instance.status())) {
    ZLOG_WARN("Status %u of entity %s is no status of an event", instance.status(),
              UuidText(instance.entity_id()).c_str());
    return false;
  }
  event->source_id = feature.source_id();
  event->qubio_id = feature.qubio_id();
  event->entity_id = UuidText(instance.entity_id());
  event->feature_id = static_cast<uint16_t>(feature.feature_id());
  event->event_type_id = static_cast<uint16_t>(type.event_type_id());
  event->status = static_cast<uint8_t>(instance.status());
  event->context = instance.context();
  ZLOG_DEBUG(
      "%s: sourceId: %s, qubioId: %s, featureId: %u, eventTypeId: %u, entityId: %s, status: %d, context: %s",
      kOperation, event->source_id.c_str(), event->qubio_id.c_str(), event->feature_id, event->event_type_id,
      event->entity_id.c_str(), event->status, event->context.c_str());
  return true;
}

// Returns false when the queue is full.
bool QueueInstances(const MonitoringEventFeatureReportMsg& feature, const MonitoringEventTypeStatusMsg& type,
                    QueueManager& queue) {
  // The events are parts of blocks, each of which ends with its last event: they leave the queue together
  // anyway.  What a report makes the agent allocate is bounded by the block, not by the report.
  const auto& instances = type.event_instance_status();
  for (int begin = 0; begin < instances.size(); begin += kEventsPerBlock) {
    const int end = std::min(instances.size(), begin + kEventsPerBlock);
    const auto block = std::make_shared<std::vector<ReportedEvent>>(static_cast<size_t>(end - begin));
    std::vector<SharedEvent> events;
    events.reserve(block->size());
    for (int i = begin; i < end; ++i) {
      ReportedEvent& event = (*block)[static_cast<size_t>(i - begin)];
      if (ReadInstance(feature, type, instances[i], &event)) events.emplace_back(block, &event);
    }
    if (!queue.WriteAll(std::move(events))) return false;
  }
  return true;
}

}  // namespace

ReportOutcome QueueEvents(const MonitoringProcessEventReportRequestMsg& report, QueueManager& queue) {
  if (IsTooLarge(report)) return ReportOutcome::kTooLarge;
  for (const MonitoringEventFeatureReportMsg& feature : report.event_feature_report()) {
    if (!feature.has_feature_id() || !Fits<uint16_t>(feature.feature_id())) {
      ZLOG_WARN("No feature-id in MonitoringEventFeatureReportMsg");
      continue;
    }
    if (!feature.has_source_id()) {
      ZLOG_WARN("No source-id in MonitoringEventFeatureReportMsg");
      continue;
    }
    for (const MonitoringEventTypeStatusMsg& type : feature.event_type_status()) {
      if (!type.has_event_type_id() || !Fits<uint16_t>(type.event_type_id())) {
        ZLOG_WARN("No event-type-id in MonitoringEventTypeStatusMsg");
        continue;
      }
      ZLOG_INFO("%s: sourceId: %s, qubioId: %s, featureId: %u, eventTypeId: %u", kOperation,
                feature.source_id().c_str(), feature.qubio_id().c_str(), feature.feature_id(),
                type.event_type_id());
      if (!QueueInstances(feature, type, queue)) return ReportOutcome::kQueueFull;
    }
  }
  return ReportOutcome::kTaken;
}

}  // namespace zem::Tarvik
