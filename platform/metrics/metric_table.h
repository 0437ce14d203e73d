#pragma once

#include <cstdint>
#include <string_view>

/// Every metric that the daemon shows to monitoring: one row each.  docs/metrics.md is made from this table.
namespace zem::metrics {

enum class MetricId : uint8_t {
  kBuildInfo,
  kUptime,
  kDegraded,
  kPartFault,
  kLoopSteps,
  kLoopLongest,
  kLoopAge,
  kQueueDepth,
  kQueueMost,
  kQueueLimit,
  kQueueOldest,
  kQueueLongestWait,
  kQueueDropped,
  kVerticalUp,
  kVerticalReceived,
  kVerticalSent,
  kVerticalSendFailures,
  kVerticalCallback,
  kGroupQueue,
  kGroupWait,
  kGroupWork,
  kStorePending,
  kStoreCalls,
  kStoreCallErrors,
  kScript,
  kScriptErrors,
  kLibrary,
  kLibraryErrors,
  kHostConfigs,
  kHostConfigFailures,
  kVifOperations,
  kVifFailures,
  kGuests,
  kGuestEvents,
  kAlarmsDelivered,
  kAlarmsDropped,
  kCaptures,
  kRpcReceived,
  kRpcSent,
  kRpcLimits,
  kCount,
};

enum class MetricKind : uint8_t {
  kCounter,    ///< only grows, from zero at the start of the process
  kGauge,      ///< the value now
  kHistogram,  ///< seconds, with the count and the sum
};

struct MetricRow {
  MetricId id;
  /// As the monitoring sees it; a histogram's has _bucket, _sum and _count behind it.
  std::string_view name;
  MetricKind kind;
  /// The one label; empty for a metric without.  A metric has at most kMostLabelValues of them; what comes
  /// later is counted under "other".
  std::string_view label;
  std::string_view help;
};

inline constexpr size_t kMostLabelValues = 64;

inline constexpr MetricRow kMetricRows[] = {
    {MetricId::kBuildInfo, "zem_tarvik_build_info", MetricKind::kGauge, "version",
     "1 for the version that runs"},
    {MetricId::kUptime, "zem_tarvik_uptime_seconds", MetricKind::kGauge, "",
     "Time since the start of the daemon"},
    {MetricId::kDegraded, "zem_tarvik_degraded", MetricKind::kGauge, "",
     "1 while a part of the daemon does not do its work, and during start and stop"},
    {MetricId::kPartFault, "zem_tarvik_part_fault", MetricKind::kGauge, "part",
     "1 for a part that does not do its work, 0 for one that does"},
    {MetricId::kLoopSteps, "zem_tarvik_loop_steps_total", MetricKind::kCounter, "loop",
     "Steps that the loop began"},
    {MetricId::kLoopLongest, "zem_tarvik_loop_longest_step_seconds", MetricKind::kGauge, "loop",
     "The loop's longest step since its start"},
    {MetricId::kLoopAge, "zem_tarvik_loop_step_age_seconds", MetricKind::kGauge, "loop",
     "How long a loop that waits for nothing but its own work has been at its step; otherwise 0"},
    {MetricId::kQueueDepth, "zem_tarvik_queue_depth", MetricKind::kGauge, "queue", "Elements that wait"},
    {MetricId::kQueueMost, "zem_tarvik_queue_most", MetricKind::kGauge, "queue", "The most that ever waited"},
    {MetricId::kQueueLimit, "zem_tarvik_queue_limit", MetricKind::kGauge, "queue",
     "How many may wait; 0 for a queue that is bounded by what feeds it"},
    {MetricId::kQueueOldest, "zem_tarvik_queue_oldest_seconds", MetricKind::kGauge, "queue",
     "How long the oldest element has waited"},
    {MetricId::kQueueLongestWait, "zem_tarvik_queue_longest_wait_seconds", MetricKind::kGauge, "queue",
     "The longest wait since the queue was made"},
    {MetricId::kQueueDropped, "zem_tarvik_queue_dropped_total", MetricKind::kCounter, "queue",
     "Elements that were refused or given up"},
    {MetricId::kVerticalUp, "zem_tarvik_vertical_up", MetricKind::kGauge, "vertical",
     "1 while the vertical has a road to the manager"},
    {MetricId::kVerticalReceived, "zem_tarvik_vertical_received_total", MetricKind::kCounter, "vertical",
     "Records received from the manager"},
    {MetricId::kVerticalSent, "zem_tarvik_vertical_sent_total", MetricKind::kCounter, "vertical",
     "Records sent to the manager"},
    {MetricId::kVerticalSendFailures, "zem_tarvik_vertical_send_failures_total", MetricKind::kCounter,
     "vertical", "Records that could not be sent"},
    {MetricId::kVerticalCallback, "zem_tarvik_vertical_callback_seconds", MetricKind::kHistogram, "vertical",
     "How long the vertical's callback took for a record"},
    {MetricId::kGroupQueue, "zem_tarvik_work_group_queue", MetricKind::kGauge, "group",
     "Work items that wait for a thread of the group"},
    {MetricId::kGroupWait, "zem_tarvik_work_group_wait_seconds", MetricKind::kHistogram, "group",
     "How long a work item waited"},
    {MetricId::kGroupWork, "zem_tarvik_work_group_work_seconds", MetricKind::kHistogram, "group",
     "How long a work item took"},
    {MetricId::kStorePending, "zem_tarvik_store_pending_writes", MetricKind::kGauge, "",
     "Writes that the store has not answered"},
    {MetricId::kStoreCalls, "zem_tarvik_store_call_seconds", MetricKind::kHistogram, "call",
     "Calls of the store, until their answer"},
    {MetricId::kStoreCallErrors, "zem_tarvik_store_call_errors_total", MetricKind::kCounter, "call",
     "Calls that the store refused or did not answer"},
    {MetricId::kScript, "zem_tarvik_script_seconds", MetricKind::kHistogram, "command",
     "Commands of the host's scripts, until their answer"},
    {MetricId::kScriptErrors, "zem_tarvik_script_errors_total", MetricKind::kCounter, "command",
     "Commands of the host's scripts that failed"},
    {MetricId::kLibrary, "zem_tarvik_library_call_seconds", MetricKind::kHistogram, "library",
     "Calls of the switch, endpoint and router libraries"},
    {MetricId::kLibraryErrors, "zem_tarvik_library_call_errors_total", MetricKind::kCounter, "library",
     "Calls of those libraries that failed"},
    {MetricId::kHostConfigs, "zem_tarvik_host_config_seconds", MetricKind::kHistogram, "",
     "Host configurations, until they were applied or refused"},
    {MetricId::kHostConfigFailures, "zem_tarvik_host_config_failures_total", MetricKind::kCounter, "",
     "Host configurations that could not be applied"},
    {MetricId::kVifOperations, "zem_tarvik_vif_operation_seconds", MetricKind::kHistogram, "operation",
     "Operations on the interfaces of VMs, until their answer"},
    {MetricId::kVifFailures, "zem_tarvik_vif_operation_failures_total", MetricKind::kCounter, "operation",
     "Operations on the interfaces of VMs that failed"},
    {MetricId::kGuests, "zem_tarvik_guests", MetricKind::kGauge, "", "Guests that the context engine knows"},
    {MetricId::kGuestEvents, "zem_tarvik_guest_events_total", MetricKind::kCounter, "",
     "Events that the guest library delivered"},
    {MetricId::kAlarmsDelivered, "zem_tarvik_alarm_reports_total", MetricKind::kCounter, "",
     "Reports of events that were made for the collector; one that is sent again counts once"},
    {MetricId::kAlarmsDropped, "zem_tarvik_alarm_reports_lost_total", MetricKind::kCounter, "",
     "Events that a full queue refused"},
    {MetricId::kCaptures, "zem_tarvik_captures", MetricKind::kGauge, "", "Packet captures that run"},
    {MetricId::kRpcReceived, "zem_tarvik_rpc_received_bytes_total", MetricKind::kCounter, "",
     "Bytes received on RPC connections"},
    {MetricId::kRpcSent, "zem_tarvik_rpc_sent_bytes_total", MetricKind::kCounter, "",
     "Bytes sent on RPC connections"},
    {MetricId::kRpcLimits, "zem_tarvik_rpc_limits_total", MetricKind::kCounter, "limit",
     "How often a limit of the RPC library was hit"},
};

constexpr bool TableIsComplete() {
  size_t at = 0;
  for (const MetricRow& row : kMetricRows) {
    if (static_cast<size_t>(row.id) != at++) return false;
  }
  return at == static_cast<size_t>(MetricId::kCount);
}
static_assert(TableIsComplete(), "the rows stand in the order of their ids");

constexpr const MetricRow& RowOf(MetricId id) { return kMetricRows[static_cast<size_t>(id)]; }

}  // namespace zem::metrics
