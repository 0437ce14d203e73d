#include "agent/metrics_report.h"

#include <algorithm>
#include <map>
#include <utility>

#include "agent/build_info.h"
#include "framework/status/status_board.h"
#include "mpaclient/client_registry.h"
#include "mpaclient/verticals.h"
#include "platform/core/loop_monitor.h"
#include "platform/metrics/process_metrics.h"
#include "platform/metrics/queue_gauge.h"
#include "platform/provider/provider.h"
#include "platform/provider/work_group.h"

namespace zem::Tarvik {
namespace {

using metrics::MetricId;
using metrics::MetricWriter;

// The store client's own gauge.
constexpr const char* kStorePending = "/zem/covedb/client/pending_request/count";

double Seconds(Duration duration) { return std::chrono::duration<double>(duration).count(); }

// Loops and queues of one name are shown as one; of too many names, the later ones as "other".
template <class T>
T& Place(std::map<std::string, T>& table, const std::string& name) {
  if (const auto found = table.find(name); found != table.end()) return found->second;
  return table[table.size() < metrics::kMostLabelValues ? name : "other"];
}

void WriteStatus(StatusBoard& board, MetricWriter* writer) {
  const StatusBoard::Report report = board.Read();
  writer->WriteGauge(MetricId::kBuildInfo, BuildInfo::c_str(), 1);
  writer->WriteGauge(MetricId::kUptime, {}, Seconds(report.uptime));
  writer->WriteGauge(MetricId::kDegraded, {}, report.faults.empty() ? 0 : 1);
  std::map<std::string, bool> faults;
  for (const std::string& part : report.well) Place(faults, part);
  for (const StatusBoard::Fault& fault : report.faults) Place(faults, fault.state.part) = true;
  for (const auto& [part, fault] : faults) writer->WriteGauge(MetricId::kPartFault, part, fault ? 1 : 0);
}

void WriteLoops(MetricWriter* writer) {
  struct Loop {
    uint64_t steps = 0;
    Duration longest{};
    Duration age{};
  };
  std::map<std::string, Loop> loops;
  for (const LoopReading& reading : LoopThread::ReadAll()) {
    Loop& loop = Place(loops, reading.name);
    loop.steps += reading.steps;
    loop.longest = std::max(loop.longest, reading.longest);
    // A worker's step may last: some are loops themselves, which end with the daemon.
    if (reading.kind == LoopKind::kPrompt) loop.age = std::max(loop.age, reading.age);
  }
  for (const auto& [name, steps] : LoopThread::StepsBefore()) Place(loops, name).steps += steps;
  for (const auto& [name, loop] : loops) {
    writer->WriteCounter(MetricId::kLoopSteps, name, loop.steps);
    writer->WriteGauge(MetricId::kLoopLongest, name, Seconds(loop.longest));
    writer->WriteGauge(MetricId::kLoopAge, name, Seconds(loop.age));
  }
}

void WriteQueues(MetricWriter* writer) {
  std::map<std::string, QueueGauge::Reading> queues;
  for (const QueueGauge::Reading& reading : QueueGauge::ReadAll()) {
    QueueGauge::Reading& queue = Place(queues, reading.name);
    queue.depth += reading.depth;
    queue.limit += reading.limit;
    queue.dropped += reading.dropped;
    queue.most = std::max(queue.most, reading.most);
    queue.oldest = std::max(queue.oldest, reading.oldest);
    queue.longest_wait = std::max(queue.longest_wait, reading.longest_wait);
  }
  for (const auto& [name, dropped] : QueueGauge::DroppedBefore()) Place(queues, name).dropped += dropped;
  for (const auto& [name, queue] : queues) {
    writer->WriteGauge(MetricId::kQueueDepth, name, static_cast<double>(queue.depth));
    writer->WriteGauge(MetricId::kQueueMost, name, static_cast<double>(queue.most));
    writer->WriteGauge(MetricId::kQueueLimit, name, static_cast<double>(queue.limit));
    writer->WriteGauge(MetricId::kQueueOldest, name, Seconds(queue.oldest));
    writer->WriteGauge(MetricId::kQueueLongestWait, name, Seconds(queue.longest_wait));
    writer->WriteCounter(MetricId::kQueueDropped, name, queue.dropped);
  }
}

void WriteVerticals(MetricWriter* writer) {
  for (const auto& [name, client] : ClientRegistry::All()) {
    const MpaClient::Figures figures = client->figures();
    const Vertical* const vertical = FindVertical(name);
    // One that only answers has no road of its own.
    if (vertical == nullptr || !vertical->traits.only_serves) {
      const bool up = client->connection_state() == MpaClient::kConnected;
      writer->WriteGauge(MetricId::kVerticalUp, name, up ? 1 : 0);
    }
    writer->WriteCounter(MetricId::kVerticalReceived, name, figures.received);
    writer->WriteCounter(MetricId::kVerticalSent, name, figures.sent);
    writer->WriteCounter(MetricId::kVerticalSendFailures, name, figures.send_failures);
    writer->WriteHistogram(MetricId::kVerticalCallback, name, client->callback_time());
  }
}

}  // namespace

MetricsReport::MetricsReport(AsioZemProvider& provider, std::shared_ptr<StatusBoard> status,
                             std::vector<boost::intrusive_ptr<WorkGroup>> groups)
    : provider_(provider), status_(std::move(status)), groups_(std::move(groups)) {}

std::string MetricsReport::Text() const {
  MetricWriter writer;
  WriteStatus(*status_, &writer);
  WriteLoops(&writer);
  WriteQueues(&writer);
  WriteVerticals(&writer);
  metrics::Registry& registry = provider_.metrics();
  writer.WriteGauge(MetricId::kStorePending, {}, static_cast<double>(registry.gauge(kStorePending).value()));
  for (const auto& group : groups_) {
    const std::string& name = group->name();
    const auto waiting = static_cast<double>(registry.gauge("work_group/queue/length", name).value());
    writer.WriteGauge(MetricId::kGroupQueue, name, waiting);
    writer.WriteHistogram(MetricId::kGroupWait, name, registry.latency("work_group/item/queued_time", name));
    writer.WriteHistogram(MetricId::kGroupWork, name,
                          registry.latency("work_group/item/processing_time", name));
  }
  writer.WriteProcessFigures();
  return writer.Text();
}

}  // namespace zem::Tarvik
