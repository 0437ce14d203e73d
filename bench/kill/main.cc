// Kills the daemon at random moments and checks each time whether the node returns to the desired state:
// while configurations and logical switches arrive, the last state sent by the manager and the store; while
// VMs come, move and go ("vifs"), an agreement between the host and the manager.
//
// bench_kill [vifs] [ROUNDS] [--seconds N] [--seed N]
//
// Or at chosen ones: at each step of each kind of operation, and once more in the recovery
// (docs/world-test.md).
//
// bench_kill sweep [OPERATION...] [OPTIONS]

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <random>
#include <string>

#include "bench/build_folder.h"
#include "bench/kill/stream.h"
#include "bench/kill/sweep/kill_sweep.h"
#include "bench/kill/vif_stream.h"
#include "platform/core/thread.h"
#include "sim/scenario/node_process.h"

namespace {

constexpr int kRounds = 100;
constexpr int kConfigsPerRound = 2;
constexpr int kSwitchesPerRound = 20;
// A little longer than a configuration takes, so that kills fall into all of its steps and after it.
constexpr int kLongestLifeMs = 60;
// Long enough for some operations of each VM.
constexpr int kLongestVifLifeMs = 1000;
constexpr int kLongestStartMs = 2500;

struct Limits {
  int rounds = kRounds;
  double seconds = 1e9;
  uint64_t seed = std::random_device()();
};

double SecondsSince(zem::TimePoint begin) {
  return std::chrono::duration<double>(zem::Clock::Process().Now() - begin).count();
}

void SleepUpTo(std::mt19937_64& random, int ms) {
  zem::SleepFor(std::chrono::microseconds(random() % static_cast<uint64_t>(ms * 1000)));
}

void Kill(zem::sim::NodeProcess& node) {
  node.Do("daemon/kill KILL");
  node.Do("daemon/wait 10");
}

void RunConfigurations(const Limits& limits, int* round) {
  std::mt19937_64 random(limits.seed);
  zem::sim::NodeProcess node(
      zem::bench::BuildFolder() + "/sim/node/zem-node",
      {"--options", ZEM_KILL_FILES "/kill.xml", "--zema", ZEM_KILL_FILES "/kill.json"});
  zem::bench::Stream stream(node);
  node.Do("switch/clear-logs");
  const auto begin = zem::Clock::Process().Now();
  stream.CheckConvergence();
  for (; *round < limits.rounds && SecondsSince(begin) < limits.seconds; ++*round) {
    for (int i = 0; i < kConfigsPerRound; ++i) stream.SendConfig();
    stream.PutSwitches(kSwitchesPerRound);
    SleepUpTo(random, kLongestLifeMs);
    Kill(node);
    node.Do("daemon/start");
    stream.CheckConvergence();
    if (*round % 10 == 9) std::printf("# %d rounds\n", *round + 1);
  }
  std::printf("kill converged rounds ours=%d peer=%d ratio=%.2f\n", *round, *round, 1.0);
  std::printf("kill resent configs ours=%d peer=%d ratio=%.2f\n", stream.resent(), *round,
              *round > 0 ? static_cast<double>(stream.resent()) / *round : 0);
  std::printf("%d configurations, %d logical switches, %.1f s\n", stream.configs(), stream.switches(),
              SecondsSince(begin));
}

void RunVifs(const Limits& limits, int* round) {
  std::mt19937_64 random(limits.seed);
  zem::sim::NodeProcess node(
      zem::bench::BuildFolder() + "/sim/node/zem-node",
      {"--options", ZEM_KILL_FILES "/kill.xml", "--zema", ZEM_KILL_FILES "/vifs.json"});
  zem::bench::VifStream stream(node, random());
  node.Do("switch/clear-logs");
  const auto begin = zem::Clock::Process().Now();
  int most_resyncs = 0;
  for (; *round < limits.rounds && SecondsSince(begin) < limits.seconds; ++*round) {
    stream.Run();
    SleepUpTo(random, kLongestVifLifeMs);
    Kill(node);
    for (uint64_t i = 1 + random() % 3; i > 0; --i) stream.ActAlone();
    stream.Start();
    if (random() % 4 == 0) {
      // A second kill, in the middle of the start, the first resync, or the requests that the host repeats.
      SleepUpTo(random, kLongestStartMs);
      Kill(node);
      stream.Start();
    }
    most_resyncs = std::max(most_resyncs, stream.Settle());
    if (*round % 10 == 9) std::printf("# %d rounds\n", *round + 1);
  }
  std::printf("kill vifs-agree rounds ours=%d peer=%d ratio=%.2f\n", *round, *round, 1.0);
  std::printf(
      "%llu attaches, %llu moves, %llu detaches, %llu asked again, %llu by the host alone, %zu drafts "
      "left, at most %d resyncs until all agreed, %.1f s\n",
      static_cast<unsigned long long>(stream.attaches()), static_cast<unsigned long long>(stream.moves()),
      static_cast<unsigned long long>(stream.detaches()), static_cast<unsigned long long>(stream.repeated()),
      static_cast<unsigned long long>(stream.alone()), stream.drafts(), most_resyncs, SecondsSince(begin));
}

constexpr const char* kSweepUsage =
    "usage: bench_kill sweep [OPERATION...] [OPTIONS]\n"
    "  --from N, --to N, --every N   which steps of the operation (all)\n"
    "  --when before|after|both      the daemon dies before or after the step (both)\n"
    "  --second-every N              every so many kills there is another in the recovery (4; 0: never)\n"
    "  --second-at N                 after every kill, at this step of the recovery\n"
    "  --seconds N                   begins no more kills after so long\n"
    "  --seed N                      of the steps of second kills (1)\n"
    "  --clock-factor N              how much faster than the machine the node lives (20)\n"
    "  --list                        prints the steps of each operation\n"
    "  --verbose                     prints each kill\n"
    "  --logs FOLDER                 keeps the daemon's log of each failure\n"
    "operations:";

int SweepUsage() {
  std::fputs(kSweepUsage, stderr);
  for (const std::string& name : zem::bench::KillSweep::OperationNames())
    std::fprintf(stderr, " %s", name.c_str());
  std::fputs("\n", stderr);
  return 2;
}

int RunSweep(const std::vector<std::string>& words) {
  zem::bench::KillSweep::Options options;
  const auto names = zem::bench::KillSweep::OperationNames();
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    const auto value = [&] { return i + 1 < words.size() ? words[++i] : std::string(); };
    const auto number = [&] { return static_cast<uint32_t>(std::strtoul(value().c_str(), nullptr, 10)); };
    if (word == "--from") {
      options.from = number();
    } else if (word == "--to") {
      options.to = number();
    } else if (word == "--every") {
      options.every = std::max(1U, number());
    } else if (word == "--when") {
      const std::string when = value();
      options.before = when != "after";
      options.after = when != "before";
    } else if (word == "--second-every") {
      options.second_every = number();
    } else if (word == "--second-at") {
      options.second_at = number();
    } else if (word == "--seconds") {
      options.seconds = number();
    } else if (word == "--seed") {
      options.seed = number();
    } else if (word == "--clock-factor") {
      options.clock_factor = static_cast<int>(number());
    } else if (word == "--list") {
      options.list = true;
    } else if (word == "--verbose") {
      options.verbose = true;
    } else if (word == "--logs") {
      options.logs = value();
    } else if (std::find(names.begin(), names.end(), word) != names.end()) {
      options.operations.push_back(word);
    } else {
      return SweepUsage();
    }
  }
  return zem::bench::KillSweep(options).Run() == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (argc > 1 && std::strcmp(argv[1], "sweep") == 0) return RunSweep({argv + 2, argv + argc});
  Limits limits;
  auto* run = &RunConfigurations;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
      limits.seconds = std::atof(argv[++i]);
    } else if (std::strcmp(argv[i], "--seed") == 0 && i + 1 < argc) {
      limits.seed = std::strtoull(argv[++i], nullptr, 10);
    } else if (std::strcmp(argv[i], "vifs") == 0) {
      run = &RunVifs;
    } else {
      limits.rounds = std::atoi(argv[i]);
    }
  }
  std::printf("seed %llu\n", static_cast<unsigned long long>(limits.seed));
  int round = 0;
  try {
    run(limits, &round);
  } catch (const std::exception& error) {
    std::printf("round %d: %s\n", round, error.what());
    return 1;
  }
  return 0;
}
