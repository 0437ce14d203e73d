// The events are sorted once and then walked: with nested maps, a report would cost an allocation for each
// event.

#include "app/alarmsprovider/events/event_report.h"

#include <algorithm>
#include <tuple>

#include "platform/core/uuid.h"
#include "proto/monitoring/monitoring.pb.h"

namespace zem::Tarvik {

void AddToReport(const std::vector<SharedEvent>& events,
                 orlane::zem::monitoring::MonitoringEventReportMsg* report) {
  std::vector<const ReportedEvent*> sorted;
  sorted.reserve(events.size());
  for (const SharedEvent& event : events) sorted.push_back(event.get());
  std::stable_sort(sorted.begin(), sorted.end(), [](const ReportedEvent* one, const ReportedEvent* other) {
    return std::tie(one->feature_id, one->qubio_id, one->event_type_id, one->entity_id) <
           std::tie(other->feature_id, other->qubio_id, other->event_type_id, other->entity_id);
  });
  orlane::zem::monitoring::MonitoringEventFeatureReportMsg* feature_report = nullptr;
  orlane::zem::monitoring::MonitoringEventTypeStatusMsg* type_status = nullptr;
  const ReportedEvent* before = nullptr;
  for (const ReportedEvent* const event : sorted) {
    const bool same_feature =
        before != nullptr && before->feature_id == event->feature_id && before->qubio_id == event->qubio_id;
    if (!same_feature) {
      feature_report = report->add_feature_report();
      feature_report->set_feature_id(event->feature_id);
      feature_report->set_source_id(event->source_id);
      if (!event->qubio_id.empty()) feature_report->set_qubio_id(event->qubio_id);
    }
    if (!same_feature || before->event_type_id != event->event_type_id) {
      type_status = feature_report->add_event_type_status();
      type_status->set_event_type_id(event->event_type_id);
    }
    auto* const instance = type_status->add_event_instance_status();
    if (const auto id = ParseUuid(event->entity_id)) SetUuid(*id, instance->mutable_entity_id());
    instance->set_status(event->status);
    instance->set_context(event->context);
    before = event;
  }
}

}  // namespace zem::Tarvik
