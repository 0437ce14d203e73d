// Kills the daemon at random moments, and looks each time whether the node becomes again what it has to be:
// while configurations and logical switches come in, what the manager and the store last said; while VMs
// come, move and go ("vifs"), what the host and the manager have of them.
//
// bench_kill [vifs] [ROUNDS] [--seconds N] [--seed N]

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <random>
#include <string>

#include "bench/build_folder.h"
#include "bench/kill/stream.h"
#include "bench/kill/vif_stream.h"
#include "platform/core/thread.h"
#include "sim/node/node_process.h"

namespace {

constexpr int kRounds = 100;
constexpr int kConfigsPerRound = 2;
constexpr int kSwitchesPerRound = 20;
// A little longer than a configuration takes, so that kills fall into all of its steps and behind it.
constexpr int kLongestLifeMs = 60;
// Some operations of each VM.
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
      // Again, in the middle of its start, its first resync, or what the host asks anew.
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

}  // namespace

int main(int argc, char** argv) {
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
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
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
