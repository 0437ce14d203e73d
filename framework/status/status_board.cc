#include "framework/status/status_board.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <utility>

#include "framework/cli/json_writer.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "platform/metrics/queue_gauge.h"
#include "platform/provider/work_group.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

// A loop that waits for nothing but its own work has lost something when a step takes that long.
constexpr Duration kLoopPatience = std::chrono::seconds(1);
// How long a queue that dropped something is told of.
constexpr Duration kDropMemory = std::chrono::minutes(10);

constexpr std::array kPhaseWords = {"starting", "healthy", "stopping"};
constexpr const char* kDegraded = "degraded";

std::string Seconds(Duration duration) {
  return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(duration).count()) + " s";
}

std::string Iso(WallTime time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  std::array<char, sizeof("2026-01-01T00:00:00Z")> text;
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

int64_t WholeSeconds(Duration duration) {
  return std::chrono::duration_cast<std::chrono::seconds>(duration).count();
}

const char* StateWord(const StatusBoard::Report& report) {
  if (report.phase == StatusBoard::Phase::kServing && !report.faults.empty()) return kDegraded;
  return kPhaseWords.at(static_cast<size_t>(report.phase));
}

std::string StatusText(const StatusBoard::Report& report, const std::string& version,
                       const std::string& node_id) {
  JsonValue faults = JsonValue::Array();
  for (const StatusBoard::Fault& fault : report.faults) {
    JsonValue row = JsonValue::Object();
    row.Add("part", fault.state.part)
        .Add("what", fault.state.fault)
        .Add("since", Iso(fault.since))
        .Add("seconds", int64_t{WholeSeconds(fault.age)})
        .Add("heals", fault.state.heals);
    faults.Append(std::move(row));
  }
  JsonValue well = JsonValue::Array();
  for (const std::string& part : report.well) well.Append(part.c_str());
  JsonValue status = JsonValue::Object();
  status.Add("state", StateWord(report))
      .Add("version", version)
      .Add("node_id", node_id)
      .Add("uptime_seconds", int64_t{WholeSeconds(report.uptime)})
      .Add("faults", std::move(faults))
      .Add("well", std::move(well));
  return status.Text();
}

}  // namespace

StatusBoard::StatusBoard(boost::intrusive_ptr<WorkGroup> work_group)
    : work_group_(std::move(work_group)), started_(Clock::Process().Now()) {
  phase_since_ = {started_, Clock::Process().WallNow()};
}

void StatusBoard::AddSource(std::string name, Source source) {
  std::lock_guard lock(mutex_);
  sources_.push_back(std::make_shared<const NamedSource>(NamedSource{std::move(name), std::move(source)}));
}

void StatusBoard::Close() {
  std::unique_lock lock(mutex_);
  closed_ = true;
  changed_.Wait(lock, [this] { return !reading_; });
  sources_.clear();
}

void StatusBoard::SetPhase(Phase phase, const std::string& step) {
  std::lock_guard lock(mutex_);
  if (phase_ != phase) phase_since_ = {Clock::Process().Now(), Clock::Process().WallNow()};
  phase_ = phase;
  step_ = step;
}

void StatusBoard::Refresh() {
  {
    std::lock_guard lock(mutex_);
    if (closed_ || std::exchange(reading_, true)) return;
    reading_since_ = {Clock::Process().Now(), Clock::Process().WallNow()};
    reading_source_ = "work group " + work_group_->name();
  }
  const bool queued =
      work_group_->Enqueue(MakeWorkItem([self = shared_from_this()] { self->ReadSources(); }));
  if (queued) return;
  std::lock_guard lock(mutex_);
  reading_ = false;  // the daemon is stopping
  changed_.NotifyAll();
}

void StatusBoard::ReadSources() {
  std::vector<PartState> parts;
  for (size_t i = 0;; ++i) {
    std::shared_ptr<const NamedSource> source;
    {
      std::lock_guard lock(mutex_);
      if (closed_ || i >= sources_.size()) break;
      source = sources_[i];
      reading_source_ = source->name;
    }
    try {
      source->source(&parts);
    } catch (const std::exception& error) {
      ZLOG_ERROR("OPS00302", "The state of %s cannot be read: %s", source->name.c_str(), error.what());
      parts.push_back({source->name, std::string("its state cannot be read: ") + error.what(),
                       "the log tells more; a restart of the daemon begins anew"});
    }
  }
  {
    // What takes its time from here on is no fault of the last source.
    std::lock_guard lock(mutex_);
    reading_source_ = "loops and queues";
  }
  AddOwnParts(&parts);
  Take(std::move(parts));
}

// The process's loops and queues, which belong to no application.
void StatusBoard::AddOwnParts(std::vector<PartState>* parts) {
  for (const LoopReading& loop : LoopThread::ReadAll()) {
    if (loop.kind != LoopKind::kPrompt || !loop.busy || loop.age < kLoopPatience) continue;
    parts->push_back({"loop " + loop.name,
                      "does not answer: at \"" + loop.step + "\" for " + Seconds(loop.age),
                      "ends with that step; if it does not, restart the daemon and keep its log"});
  }
  struct Sum {
    uint64_t dropped = 0;
    size_t depth = 0;
    size_t limit = 0;
  };
  std::map<std::string, Sum> sums;  // queues may share a name
  for (const QueueGauge::Reading& queue : QueueGauge::ReadAll()) {
    Sum& sum = sums[queue.name];
    sum.dropped += queue.dropped;
    sum.depth += queue.depth;
    sum.limit += queue.limit;
  }
  const TimePoint now = Clock::Process().Now();
  std::map<std::string, QueueDrops> drops;
  for (const auto& [name, sum] : sums) {
    const auto before = queue_drops_.find(name);
    QueueDrops& queue = drops[name] = before == queue_drops_.end() ? QueueDrops{} : before->second;
    // A queue that was made anew counts from zero.
    if (sum.dropped > queue.dropped) queue.last = now;
    queue.dropped = sum.dropped;
    if (!queue.last || now - *queue.last > kDropMemory) continue;
    parts->push_back(
        {"queue " + name,
         std::to_string(sum.dropped) + " dropped, " + std::to_string(sum.depth) + " of " +
             std::to_string(sum.limit) + " wait",
         "told for 10 minutes after the last drop; what feeds the queue must slow down, or what it waits "
         "for must answer"});
  }
  queue_drops_ = std::move(drops);
}

void StatusBoard::Take(std::vector<PartState> parts) {
  const TimePoint now = Clock::Process().Now();
  const WallTime wall = Clock::Process().WallNow();
  std::lock_guard lock(mutex_);
  std::map<std::string, Since> since;
  for (const PartState& state : parts) {
    if (state.fault.empty()) continue;
    const auto known = since_.find(state.part);
    since.try_emplace(state.part, known != since_.end() ? known->second : Since{now, wall});
  }
  since_ = std::move(since);
  parts_ = std::move(parts);
  ++readings_;
  reading_ = false;
  changed_.NotifyAll();
}

StatusBoard::Fault StatusBoard::FaultOf(PartState state, TimePoint now) const {
  const auto known = since_.find(state.part);
  const Since since = known != since_.end() ? known->second : reading_since_;
  return {std::move(state), since.wall, now - since.time};
}

StatusBoard::Report StatusBoard::Read() {
  Refresh();
  std::unique_lock lock(mutex_);
  // A reading that hangs has had its time; whoever asks next waits no more for it.
  const Duration age = reading_ ? Clock::Process().Now() - reading_since_.time : Duration::zero();
  if (age < kPatience) changed_.WaitFor(lock, kPatience - age, [this] { return !reading_; });
  const TimePoint now = Clock::Process().Now();
  Report report{phase_, now - started_, {}, {}};
  const auto phase_fault = [&](std::string what, std::string heals) {
    report.faults.push_back({{kPhaseWords.at(static_cast<size_t>(phase_)), std::move(what), std::move(heals)},
                             phase_since_.wall,
                             now - phase_since_.time});
  };
  if (phase_ == Phase::kStarting)
    phase_fault("the start is at \"" + step_ + "\"", "ends with the start's last step");
  if (phase_ == Phase::kStopping) phase_fault("the daemon is stopping", "start the daemon");
  if (reading_) {
    report.faults.push_back(
        {{reading_source_, "does not tell its state; what follows is from before",
          "ends when the part goes on; if it does not, restart the daemon and keep its log"},
         reading_since_.wall,
         now - reading_since_.time});
  }
  for (const PartState& state : parts_) {
    if (state.fault.empty()) {
      report.well.push_back(state.part);
    } else {
      report.faults.push_back(FaultOf(state, now));
    }
  }
  return report;
}

CliCommand StatusCommand(std::shared_ptr<StatusBoard> board, std::string version,
                         std::function<std::string()> node_id) {
  return {
      "get/status", "", 0, 0,
      [board = std::move(board), version = std::move(version), node_id = std::move(node_id)](
          const CliArguments&, CliReply reply) { reply.Ok(StatusText(board->Read(), version, node_id())); }};
}

}  // namespace zem::Tarvik
