// How long a change takes from one process through the store to another, how many changes per second pass,
// and how long a new client waits for all objects: the agent's store client with the node's store daemon,
// beside ovsdb-server.
//
// bench_store [ROUNDS]
// The other two forms are the processes that it starts:  bench_store --watch ours|ovsdb|floor ADDRESS,
// bench_store --relay

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <vector>

#include "bench/store/spawned.h"
#include "bench/store/subject.h"

namespace zem::bench {

std::string KeyText(uint32_t key) {
  char text[32];
  std::snprintf(text, sizeof(text), "object-%08u", key);
  return text;
}

// As long as a logical switch with its name and path.
std::string ObjectText() { return std::string(100, 'x'); }

namespace {

constexpr int kRounds = 5;
constexpr int kPuts = 2000;
constexpr uint32_t kBatch = 1000;
constexpr uint32_t kBatches = 100;
constexpr uint32_t kSnapshot = 22000;

constexpr double kLatencyGoalUs = 60;
constexpr double kChangesGoal = 100000;
constexpr double kSnapshotGoalMs = 150;

// This clock is the same in all processes of the machine.
int64_t NowNs() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

// The watching process reports a number that it has seen, or 0 at the end of its first reading.
struct Report {
  int64_t number = 0;
  uint64_t objects = 0;
  int64_t begun_ns = 0;
  int64_t at_ns = 0;
};

[[noreturn]] void Watch(const std::string& kind, const std::string& address) {
  const int64_t begun = NowNs();
  const auto tell = [begun](int64_t number, uint64_t objects) {
    const Report report{number, objects, begun, NowNs()};
    if (::write(STDOUT_FILENO, &report, sizeof(report)) != sizeof(report)) std::_Exit(1);
  };
  const Watcher watcher{[tell](uint64_t objects) { tell(0, objects); },
                        [tell](int64_t number) { tell(number, 0); }};
  if (kind == "ours") WatchOurs(address, watcher);
  if (kind == "floor") WatchFloor(address, watcher);
  WatchOvsdb(address, watcher);
}

struct Result {
  double latency_us = 0;
  double p99_us = 0;
  double changes_per_second = 0;
  double snapshot_ms = 0;
};

class Run {
 public:
  Run(const char* kind, std::unique_ptr<Subject> subject) : kind_(kind), subject_(std::move(subject)) {}

  Result Measure() {
    Result result;
    Fill();
    result.snapshot_ms = 1e9;
    for (int i = 0; i < 3; ++i) result.snapshot_ms = std::min(result.snapshot_ms, Snapshot());
    result.changes_per_second = Changes();
    return result;
  }

  // An empty store sends nothing to a new client, not even the end of the reading.
  void Begin() {
    Put(1, 0);
    subject_->Flush();
  }

  // Single changes, one after the other.
  void Latency(Result* result) {
    Report first;
    const auto watcher = StartWatcher(&first);
    std::vector<double> times;
    for (int i = 0; i < kPuts; ++i) {
      const int64_t number = ++last_;
      const int64_t begun = NowNs();
      Put(1, number);
      times.push_back(static_cast<double>(Await(*watcher, number).at_ns - begun) / 1e3);
      subject_->Flush();
    }
    std::sort(times.begin(), times.end());
    result->latency_us = times[times.size() / 2];
    result->p99_us = times[times.size() * 99 / 100];
  }

 private:
  std::unique_ptr<Spawned> StartWatcher(Report* first) {
    auto watcher = std::make_unique<Spawned>(
        std::vector<std::string>{"/proc/self/exe", "--watch", kind_, subject_->address()});
    watcher->Read(first, sizeof(*first));
    return watcher;
  }

  Report Await(Spawned& watcher, int64_t number) {
    Report report;
    do {
      watcher.Read(&report, sizeof(report));
    } while (report.number != number);
    return report;
  }

  void Put(uint32_t count, int64_t number) {
    subject_->Put({next_key_, number}, count);
    next_key_ += count;
  }

  void Fill() {
    while (next_key_ < kSnapshot) Put(kBatch, 0);
    subject_->Flush();
  }

  // Measured from the process's first instruction, because connecting is part of it.
  double Snapshot() {
    Report first;
    const auto watcher = StartWatcher(&first);
    if (first.objects != kSnapshot) throw std::runtime_error("the snapshot is not complete");
    return static_cast<double>(first.at_ns - first.begun_ns) / 1e6;
  }

  // The watcher has seen the last change of the last batch.
  double Changes() {
    Report first;
    const auto watcher = StartWatcher(&first);
    const int64_t number = ++last_;
    const int64_t begun = NowNs();
    for (uint32_t i = 1; i <= kBatches; ++i) Put(kBatch, i == kBatches ? number : 0);
    const double seconds = static_cast<double>(Await(*watcher, number).at_ns - begun) / 1e9;
    subject_->Flush();
    return kBatch * kBatches / seconds;
  }

  const char* const kind_;
  const std::unique_ptr<Subject> subject_;
  int64_t last_ = 0;
  uint32_t next_key_ = 0;
};

void Line(const char* name, double ours, double peer, double ratio) {
  std::printf("store %s ours=%.1f peer=%.1f ratio=%.2f\n", name, ours, peer, ratio);
}

// While this object lives, this thread and the processes that it starts share one processor: waking another
// virtual processor takes longer than everything that is measured.
class OneProcessor {
 public:
  OneProcessor() {
    ::sched_getaffinity(0, sizeof(before_), &before_);
    cpu_set_t one;
    CPU_ZERO(&one);
    int first = 0;
    while (!CPU_ISSET(first, &before_)) ++first;
    CPU_SET(first, &one);
    ::sched_setaffinity(0, sizeof(one), &one);
  }
  ~OneProcessor() { ::sched_setaffinity(0, sizeof(before_), &before_); }
  OneProcessor(const OneProcessor&) = delete;
  OneProcessor& operator=(const OneProcessor&) = delete;

 private:
  cpu_set_t before_;
};

struct Latencies {
  double median_us = 1e9;
  double p99_us = 1e9;

  void Add(const char* kind, std::unique_ptr<Subject> subject, bool keeps_objects = true) {
    Result result;
    Run run(kind, std::move(subject));
    if (keeps_objects) run.Begin();
    run.Latency(&result);
    median_us = std::min(median_us, result.latency_us);
    p99_us = std::min(p99_us, result.p99_us);
  }
};

// The same three measurements of ours, of the peer, and of the floor.
struct Puts {
  Latencies ours;
  Latencies peer;
  Latencies floor;

  void Measure() {
    ours.Add("ours", MakeOurs());
    peer.Add("ovsdb", MakeOvsdb());
    floor.Add("floor", MakeFloor(), false);
  }
  void Show(const char* name) const {
    const auto line = [name](const char* metric, double a, double b) {
      std::printf("store %s %s ours=%.1f peer=%.1f ratio=%.2f\n", name, metric, a, b, b / a);
    };
    line("median_us", ours.median_us, peer.median_us);
    line("p99_us", ours.p99_us, peer.p99_us);
    line("median_us_floor", ours.median_us, floor.median_us);
    line("median_us_limit", ours.median_us, kLatencyGoalUs);
  }
};

void Compare(int rounds) {
  Puts one_processor;
  Puts any_processor;
  Result ours{0, 0, 0, 1e9};
  Result peer = ours;
  const auto best = [](const Result& result, Result* of_all) {
    of_all->changes_per_second = std::max(of_all->changes_per_second, result.changes_per_second);
    of_all->snapshot_ms = std::min(of_all->snapshot_ms, result.snapshot_ms);
  };
  for (int round = 0; round < rounds; ++round) {
    {
      const OneProcessor one;
      one_processor.Measure();
    }
    any_processor.Measure();
    best(Run("ours", MakeOurs()).Measure(), &ours);
    best(Run("ovsdb", MakeOvsdb()).Measure(), &peer);
  }
  one_processor.Show("put");
  any_processor.Show("put-any-processor");
  Line("batches changes_per_second", ours.changes_per_second, peer.changes_per_second,
       ours.changes_per_second / peer.changes_per_second);
  Line("batches changes_per_second_limit", ours.changes_per_second, kChangesGoal,
       ours.changes_per_second / kChangesGoal);
  Line("snapshot-22000 ms", ours.snapshot_ms, peer.snapshot_ms, peer.snapshot_ms / ours.snapshot_ms);
  Line("snapshot-22000 ms_limit", ours.snapshot_ms, kSnapshotGoalMs, kSnapshotGoalMs / ours.snapshot_ms);
}

}  // namespace
}  // namespace zem::bench

int main(int argc, char** argv) {
  try {
    if (argc == 2 && std::strcmp(argv[1], "--relay") == 0) zem::bench::Relay();
    if (argc == 4 && std::strcmp(argv[1], "--watch") == 0) zem::bench::Watch(argv[2], argv[3]);
    const int rounds = argc > 1 ? std::atoi(argv[1]) : zem::bench::kRounds;
    if (argc > 2 || rounds < 1) {
      std::fputs("usage: bench_store [ROUNDS]\n", stderr);
      return 2;
    }
    zem::bench::Compare(rounds);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_store: %s\n", error.what());
    return 1;
  }
  return 0;
}
