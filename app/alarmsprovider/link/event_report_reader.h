#pragma once

namespace orlane::zem::monitoring {
class MonitoringProcessEventReportRequestMsg;
}

namespace zem::Tarvik {

class QueueManager;

/// What became of a report.
enum class ReportOutcome {
  kTaken,
  kQueueFull,  // the events before the first that did not fit are queued
  kTooLarge,   // an id or a context is longer than a client may send; nothing is queued
};

/// Queues the events of a client's report.  Entries without the ids that they need are logged and skipped.
ReportOutcome QueueEvents(const orlane::zem::monitoring::MonitoringProcessEventReportRequestMsg& report,
                          QueueManager& queue);

}  // namespace zem::Tarvik
