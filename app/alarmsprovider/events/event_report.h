#pragma once

#include <vector>

#include "app/alarmsprovider/events/reported_event.h"

namespace orlane::zem::monitoring {
class MonitoringEventReportMsg;
}

namespace zem::Tarvik {

/// Adds the events to a report: one feature report for each pair of feature and qubio id, with ascending
/// event types, below them the entities in the order of their texts, and the events of one entity in the
/// order of the list.  A feature report names one source, that of its first event, also when its events come
/// from several.
void AddToReport(const std::vector<SharedEvent>& events,
                 orlane::zem::monitoring::MonitoringEventReportMsg* report);

}  // namespace zem::Tarvik
