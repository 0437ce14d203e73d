// Kills the daemon at random moments while configurations and logical switches come in, and looks each time
// whether the node becomes again what the manager and the store last said.
//
// bench_kill [ROUNDS] [--seconds N] [--seed N]

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <random>
#include <string>

#include "bench/kill/stream.h"
#include "platform/core/thread.h"
#include "sim/node/node_process.h"

namespace {

constexpr int kRounds = 100;
constexpr int kConfigsPerRound = 2;
constexpr int kSwitchesPerRound = 20;
// A little longer than a configuration takes, so that kills fall into all of its steps and behind it.
constexpr int kLongestLifeMs = 60;

std::string Beside(const char* name) {
  char path[4096];
  const ssize_t size = ::readlink("/proc/self/exe", path, sizeof(path));
  const std::string here(path, size > 0 ? static_cast<size_t>(size) : 0);
  // build/PRESET/bench/kill/bench_kill
  std::string root = here;
  for (int i = 0; i < 3; ++i) root = root.substr(0, root.rfind('/'));
  return root + name;
}

}  // namespace

int main(int argc, char** argv) {
  using zem::Clock;
  int rounds = kRounds;
  double seconds = 1e9;
  uint64_t seed = std::random_device()();
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
      seconds = std::atof(argv[++i]);
    } else if (std::strcmp(argv[i], "--seed") == 0 && i + 1 < argc) {
      seed = std::strtoull(argv[++i], nullptr, 10);
    } else {
      rounds = std::atoi(argv[i]);
    }
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
  std::mt19937_64 random(seed);
  int round = 0;
  try {
    zem::sim::NodeProcess node(Beside("/sim/node/zem-node"), {"--options", ZEM_KILL_FILES "/kill.xml",
                                                              "--zema", ZEM_KILL_FILES "/kill.json"});
    zem::bench::Stream stream(node);
    node.Do("switch/clear-logs");
    const auto begin = Clock::Process().Now();
    stream.CheckConvergence();
    for (; round < rounds; ++round) {
      const std::chrono::duration<double> spent = Clock::Process().Now() - begin;
      if (spent.count() > seconds) break;
      for (int i = 0; i < kConfigsPerRound; ++i) stream.SendConfig();
      stream.PutSwitches(kSwitchesPerRound);
      zem::SleepFor(std::chrono::microseconds(random() % (kLongestLifeMs * 1000)));
      node.Do("daemon/kill KILL");
      node.Do("daemon/wait 10");
      node.Do("daemon/start");
      stream.CheckConvergence();
      if (round % 10 == 9) std::printf("# %d rounds\n", round + 1);
    }
    const std::chrono::duration<double> spent = Clock::Process().Now() - begin;
    std::printf("kill converged rounds ours=%d peer=%d ratio=%.2f\n", round, round, 1.0);
    std::printf("kill resent configs ours=%d peer=%d ratio=%.2f\n", stream.resent(), round,
                round > 0 ? static_cast<double>(stream.resent()) / round : 0);
    std::printf("%d configurations, %d logical switches, %.1f s\n", stream.configs(), stream.switches(),
                spent.count());
  } catch (const std::exception& error) {
    std::printf("round %d: %s\n", round, error.what());
    return 1;
  }
  return 0;
}
