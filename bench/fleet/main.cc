// A fabric of many hosts before one manager, on the virtual clock: what a start of all hosts, a restart of
// the manager, another list of APHs, an outage of the stores and an upgrade put on the manager, and how long
// it is until every host is served again.
//
// bench_fleet [HOSTS] [STORY ...] [--curve FILE]     HOSTS: 1000; STORY: all of them, in order

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include "bench/fleet/fleet_story.h"
#include "framework/log/logger.h"

namespace {

using zem::fleet::Fabric;
using zem::fleet::Second;

struct Sum {
  uint64_t handshakes = 0;
  uint64_t messages = 0;
  uint64_t handshake_peak = 0;
  uint64_t message_peak = 0;
  // Seconds in which the manager had anything to do.
  uint64_t busy = 0;
  // The last of them.
  size_t last = 0;
};

Sum Summed(const std::vector<Second>& seconds) {
  Sum sum;
  for (size_t i = 0; i < seconds.size(); ++i) {
    const zem::fleet::Load& load = seconds[i].load;
    const uint64_t messages = load.handshakes + load.requests + load.publishes;
    sum.handshakes += load.handshakes;
    sum.messages += messages;
    sum.handshake_peak = std::max(sum.handshake_peak, load.handshakes);
    sum.message_peak = std::max(sum.message_peak, messages);
    if (messages == 0) continue;
    ++sum.busy;
    sum.last = i + 1;
  }
  return sum;
}

void Curve(const std::string& path, const std::string& story, const std::vector<Second>& seconds) {
  std::ofstream file(path, std::ios::app);
  for (size_t i = 0; i < seconds.size(); ++i) {
    const Second& second = seconds[i];
    file << story << ',' << i + 1 << ',' << second.load.handshakes << ','
         << second.load.requests + second.load.publishes << ',' << second.load.connections << ','
         << second.ready << '\n';
  }
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

int Run(int hosts, const std::vector<std::string>& stories, const std::string& curve) {
  const auto begin = std::chrono::steady_clock::now();
  Fabric fabric(hosts);
  if (!curve.empty()) {
    std::ofstream(curve) << "story,second,handshakes,messages,connections,ready\n";
  }
  std::printf("%d hosts, %d APHs\n%-16s %10s %12s %15s %13s %12s\n", hosts, zem::fleet::FleetManager::kAphs,
              "story", "quiet at s", "handshakes", "most in 1 s", "messages", "most in 1 s");
  std::vector<std::string> lines;
  for (const std::string& story : stories) {
    const std::vector<Second> seconds = fabric.Tell(story);
    const Sum sum = Summed(seconds);
    std::printf(
        "%-16s %10zu %12llu %15llu %13llu %12llu\n", story.c_str(), sum.last,
        static_cast<unsigned long long>(sum.handshakes), static_cast<unsigned long long>(sum.handshake_peak),
        static_cast<unsigned long long>(sum.messages), static_cast<unsigned long long>(sum.message_peak));
    std::fflush(stdout);
    if (!curve.empty()) Curve(curve, story, seconds);
    // What the manager would take each second, were the same work spread evenly over the same seconds.
    if (sum.busy == 0) continue;
    const double even = static_cast<double>(sum.handshakes) / static_cast<double>(sum.busy);
    char line[160];
    std::snprintf(line, sizeof(line), "fleet %s handshakes-per-s ours=%llu peer=%.0f ratio=%.2f",
                  story.c_str(), static_cast<unsigned long long>(sum.handshake_peak), even,
                  even / static_cast<double>(std::max<uint64_t>(1, sum.handshake_peak)));
    lines.emplace_back(line);
  }
  const size_t bytes = zem::fleet::ResidentBytes();
  const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  std::printf("real time %.1f s; memory %.0f MiB, of an agent with its connections %.0f KiB\n", took,
              static_cast<double>(bytes) / 1048576,
              static_cast<double>(bytes - fabric.bytes_without_agents()) / 1024 / hosts);
  for (const std::string& line : lines) std::puts(line.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int hosts = 1000;
  std::vector<std::string> stories;
  std::string curve;
  const std::vector<std::string> known = Fabric::StoryNames();
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    char* end = nullptr;
    const long number = std::strtol(argv[i], &end, 10);
    if (word == "--curve" && i + 1 < argc) {
      curve = argv[++i];
    } else if (*end == '\0' && number >= 1 && number <= 10000) {
      hosts = static_cast<int>(number);
    } else if (std::find(known.begin(), known.end(), word) != known.end()) {
      stories.push_back(word);
    } else {
      std::fprintf(stderr, "bench_fleet [HOSTS] [STORY ...] [--curve FILE]\nHOSTS: 1 to 10000; STORY:");
      for (const std::string& name : known) std::fprintf(stderr, " %s", name.c_str());
      std::fputs("\n", stderr);
      return 2;
    }
  }
  if (stories.empty()) stories = known;
  // Every story begins with a fabric that works.
  if (stories.front() != "start") stories.insert(stories.begin(), "start");
  zem::Logger::logLevel.store(zem::kLogOff);
  for (int i = 0; i < static_cast<int>(zem::Library::kCount); ++i) {
    zem::LibraryLevel(static_cast<zem::Library>(i)).store(zem::kLogOff);
  }
  try {
    return Run(hosts, stories, curve);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_fleet: %s\n", error.what());
    return 1;
  }
}
