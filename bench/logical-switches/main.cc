// Logical switches from the store to the host's proxy, against a client that only sends the same calls to the
// proxy. Ends with lines "logical-switches CASE METRIC ours=NUMBER peer=NUMBER ratio=NUMBER"; the goal is a
// ratio of 0.8.

#include <stdlib.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>

#include "bench/logical-switches/road.h"
#include "framework/log/logger.h"
#include "framework/process/shutdown_pipe.h"
#include "sim/sandbox/sandbox.h"
#include "sim/store/logical_switches.h"

namespace zem::bench {
namespace {

constexpr int kRounds = 5;
constexpr uint32_t kFullSync = 10000;
constexpr uint32_t kSingles = 1000;
constexpr uint32_t kZones = 10;

// The seconds of one round; a sandbox's body passes them on in shared memory.
struct Result {
  double read_s = 0;  // from the connection to the store until the first call
  double send_s = 0;  // from the first call until the store holds the processed barrier
  double peer_read_s = 0;
  double peer_send_s = 0;
  size_t calls = 0;
};

double Seconds(Road::Instant from, Road::Instant to) {
  return std::chrono::duration<double>(to - from).count();
}

std::vector<Call> FullSync(Road& road, Result* result) {
  road.Change(sim::PutLogicalSwitches({1, kFullSync, kZones, 1}, 1, true));
  result->peer_read_s = road.ReadAlone();
  const auto begun = std::chrono::steady_clock::now();
  road.Connect();
  const auto done = road.WaitForBarrier(1);
  Road::Instant first;
  std::vector<Call> calls = road.TakeCalls(&first);
  result->read_s = Seconds(begun, first);
  result->send_s = Seconds(first, done);
  return calls;
}

// Each change is a transaction and a command of its own.  The batch's quiet period is a choice of the product
// and is not counted.
std::vector<Call> SingleUpdates(Road& road, Result* result) {
  road.SetApplyMax(1);
  road.Change(sim::PutLogicalSwitches({1, 1, kZones, 1}, 1, true));
  road.Connect();
  road.WaitForBarrier(1);
  Road::Instant first;
  road.TakeCalls(&first);
  for (uint32_t i = 1; i <= kSingles; ++i)
    road.Change(sim::PutLogicalSwitches({1 + i, 1, kZones, 1}, 1 + i, false));
  const auto done = road.WaitForBarrier(1 + kSingles);
  std::vector<Call> calls = road.TakeCalls(&first);
  result->send_s = Seconds(first, done);
  return calls;
}

struct Case {
  const char* name;
  uint32_t switches;
  std::vector<Call> (*run)(Road& road, Result* result);
};
constexpr Case kCases[] = {{"full-sync-10000", kFullSync, FullSync},
                           {"single-1000", kSingles, SingleUpdates}};

int Measure(const Case& c, Result* result) {
  try {
    std::filesystem::create_symlink(std::string(sim::kNodeDirectory) + "/ps", "/usr/local/bin/ps");
    ::setenv("PATH", "/usr/local/bin:/usr/bin:/bin", 1);
    Logger::logLevel = static_cast<uint32_t>(kLogInfo);
    // There is no syslog here; log lines are formatted and discarded.
    Logger::SetEmitter([](int, const char*) {});
    if (!Tarvik::OpenShutdownPipe()) return 1;
    zema::LumSettings settings;
    settings.script = std::string(sim::kNodeDirectory) + "/zemaLum.py";
    settings.kill_pause = std::chrono::milliseconds(20);
    settings.pid_pause = std::chrono::milliseconds(20);
    settings.ready_pause = std::chrono::milliseconds(20);
    settings.host_version = "7.0.3";
    std::vector<Call> calls;
    {
      Road road(settings);
      calls = c.run(road, result);
    }
    BareClient bare(settings.script, settings.socket);
    result->peer_send_s = bare.Send(calls);
    result->peer_send_s = std::min(result->peer_send_s, bare.Send(calls));
    result->calls = calls.size();
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "logical-switches: %s\n", error.what());
    return 1;
  }
}

void Print(const char* name, uint32_t switches, double ours_s, double peer_s) {
  std::printf("logical-switches %s switches_per_s ours=%.0f peer=%.0f ratio=%.2f\n", name, switches / ours_s,
              switches / peer_s, peer_s / ours_s);
}

void TakeBetter(double* best, double seconds) {
  if (*best == 0 || seconds < *best) *best = seconds;
}

int Main(const char* only) {
  if (only != nullptr && std::none_of(std::begin(kCases), std::end(kCases),
                                      [&](const Case& c) { return std::strcmp(only, c.name) == 0; })) {
    std::fprintf(stderr, "logical-switches: no case %s\n", only);
    return 2;
  }
  std::string pattern = std::filesystem::temp_directory_path() / "zem-bench-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) return 1;
  const std::filesystem::path folder = pattern;
  for (const auto& file : std::filesystem::directory_iterator(ZEM_SOURCE "/sim/host")) {
    if (file.is_regular_file()) std::filesystem::copy(file.path(), folder / file.path().filename());
  }
  auto* const result = static_cast<Result*>(
      ::mmap(nullptr, sizeof(Result), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  int code = result == MAP_FAILED ? 1 : 0;
  for (const Case& c : kCases) {
    if (only != nullptr && std::strcmp(only, c.name) != 0) continue;
    Result best;
    for (int round = 1; round <= kRounds && code == 0; ++round) {
      // Each round runs in a sandbox of its own, with its own script and host.
      *result = Result();
      std::fflush(stdout);  // a sandbox begins with a copy of this process
      code = sim::RunInSandbox({folder, "/bin/true"}, [&] { return Measure(c, result); });
      if (code != 0) break;
      std::fprintf(stderr, "# %s round %d: ours %.3f + %.3f s, peer %.3f + %.3f s (%zu calls)\n", c.name,
                   round, result->read_s, result->send_s, result->peer_read_s, result->peer_send_s,
                   result->calls);
      TakeBetter(&best.read_s, result->read_s);
      TakeBetter(&best.send_s, result->send_s);
      TakeBetter(&best.peer_read_s, result->peer_read_s);
      TakeBetter(&best.peer_send_s, result->peer_send_s);
    }
    if (code != 0) break;
    Print(c.name, c.switches, best.send_s, best.peer_send_s);
    if (best.read_s == 0) continue;
    Print("full-sync-10000-with-reading", c.switches, best.read_s + best.send_s,
          best.peer_read_s + best.peer_send_s);
  }
  std::filesystem::remove_all(folder);
  return code;
}

}  // namespace
}  // namespace zem::bench

int main(int argc, char** argv) { return zem::bench::Main(argc > 1 ? argv[1] : nullptr); }
