#include "app/alarmsprovider/events/event_report.h"

#include <map>
#include <string_view>
#include <utility>

#include "platform/core/uuid.h"
#include "proto/monitoring/monitoring.pb.h"

namespace zem::Tarvik {

void AddToReport(const std::vector<SharedEvent>& events,
                 orlane::zem::monitoring::MonitoringEventReportMsg* report) {
  using ByEntity = std::map<std::string_view, std::vector<const ReportedEvent*>>;
  using ByEventType = std::map<uint16_t, ByEntity>;
  std::map<std::pair<uint16_t, std::string_view>, ByEventType> features;
  for (const SharedEvent& event : events) {
    features[{event->feature_id, event->qubio_id}][event->event_type_id][event->entity_id].push_back(
        event.get());
  }
  for (const auto& [feature, event_types] : features) {
    auto* const feature_report = report->add_feature_report();
    feature_report->set_feature_id(feature.first);
    const ReportedEvent& first = *event_types.begin()->second.begin()->second.front();
    feature_report->set_source_id(first.source_id);
    if (!first.qubio_id.empty()) feature_report->set_qubio_id(first.qubio_id);
    for (const auto& [event_type, entities] : event_types) {
      auto* const type_status = feature_report->add_event_type_status();
      type_status->set_event_type_id(event_type);
      for (const auto& [entity, instances] : entities) {
        for (const ReportedEvent* const event : instances) {
          auto* const instance = type_status->add_event_instance_status();
          if (const auto id = ParseUuid(event->entity_id)) SetUuid(*id, instance->mutable_entity_id());
          instance->set_status(event->status);
          instance->set_context(event->context);
        }
      }
    }
  }
}

}  // namespace zem::Tarvik
