#include "sim/fleet/fleet_program.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <ostream>
#include <stdexcept>

#include "framework/log/logger.h"
#include "platform/core/clock.h"

namespace zem::fleet {
namespace {

constexpr int kMostHosts = 10'000;
constexpr size_t kWidest = 40;

uint64_t Messages(const Load& load) { return load.handshakes + load.requests + load.publishes; }

template <typename... Values>
std::string Format(const char* format, Values... values) {
  char text[200];
  std::snprintf(text, sizeof(text), format, values...);
  return text;
}

unsigned long long Plain(uint64_t number) { return number; }

void PrintOverTime(const StorySum& sum, const std::vector<Second>& seconds, std::ostream& out) {
  out << Format("\n%s\n%8s %11s %10s %12s %8s\n", sum.story.c_str(), "second", "handshakes", "messages",
                "connections", "served");
  for (size_t i = 0; i < seconds.size(); ++i) {
    const Load& load = seconds[i].load;
    const bool told = i == 0 || i + 1 == seconds.size() || seconds[i].ready != seconds[i - 1].ready;
    if (Messages(load) == 0 && load.connections == 0 && !told) continue;
    const size_t bar = Messages(load) * kWidest / std::max<uint64_t>(1, sum.message_peak);
    out << Format("%8zu %11llu %10llu %12llu %8d ", i + 1, Plain(load.handshakes), Plain(Messages(load)),
                  Plain(load.connections), seconds[i].ready)
        << std::string(bar, '#') << "\n";
  }
}

void WriteCurve(const std::string& path, const std::string& story, const std::vector<Second>& seconds) {
  std::ofstream file(path, std::ios::app);
  for (size_t i = 0; i < seconds.size(); ++i) {
    const Second& second = seconds[i];
    file << story << ',' << i + 1 << ',' << second.load.handshakes << ','
         << second.load.requests + second.load.publishes << ',' << second.load.connections << ','
         << second.ready << '\n';
  }
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

void TurnLogOff() {
  Logger::logLevel.store(kLogOff);
  for (int i = 0; i < static_cast<int>(Library::kCount); ++i) {
    LibraryLevel(static_cast<Library>(i)).store(kLogOff);
  }
}

}  // namespace

FleetOrder ReadFleetOrder(const std::vector<std::string>& words) {
  FleetOrder order;
  const std::vector<std::string> known = Fabric::StoryNames();
  bool sized = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    int number = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (word == "--curve") {
      if (++i == words.size()) throw std::invalid_argument("--curve needs a file");
      order.curve = words[i];
    } else if (!sized && error == std::errc() && end == word.data() + word.size() && number >= 1 &&
               number <= kMostHosts) {
      order.hosts = number;
      sized = true;
    } else if (std::find(known.begin(), known.end(), word) != known.end()) {
      order.stories.push_back(word);
    } else {
      std::string text = "\"" + word + "\" is neither a number of hosts (1 to " + std::to_string(kMostHosts) +
                         ") nor one of";
      for (const std::string& name : known) text += " " + name;
      throw std::invalid_argument(text);
    }
  }
  if (order.stories.empty()) order.stories = known;
  // Every other story begins with a fabric that works.
  if (order.stories.front() != known.front()) order.stories.insert(order.stories.begin(), known.front());
  return order;
}

StorySum Summed(const std::string& story, const std::vector<Second>& seconds, int hosts) {
  StorySum sum;
  sum.story = story;
  for (size_t i = 0; i < seconds.size(); ++i) {
    const Load& load = seconds[i].load;
    sum.handshakes += load.handshakes;
    sum.messages += Messages(load);
    sum.handshake_peak = std::max(sum.handshake_peak, load.handshakes);
    sum.message_peak = std::max(sum.message_peak, Messages(load));
    if (seconds[i].ready < hosts) sum.ready_at = i + 2;
    if (Messages(load) == 0) continue;
    ++sum.busy;
    sum.quiet_at = i + 1;
  }
  return sum;
}

std::vector<StorySum> RunFleet(const FleetOrder& order, std::ostream& out) {
  TurnLogOff();
  const Clock& machine = Clock::Process();  // the fabric's own is in its place afterwards
  const TimePoint begin = machine.Now();
  Fabric fabric(order.hosts);
  if (!order.curve.empty()) {
    std::ofstream(order.curve) << "story,second,handshakes,messages,connections,ready\n";
  }
  std::vector<StorySum> sums;
  for (const std::string& story : order.stories) {
    const std::vector<Second> seconds = fabric.Tell(story);
    sums.push_back(Summed(story, seconds, order.hosts));
    if (order.over_time) PrintOverTime(sums.back(), seconds, out);
    if (!order.curve.empty()) WriteCurve(order.curve, story, seconds);
  }
  out << Format("\n%d hosts, %d APHs\n%-16s %11s %10s %11s %12s %10s %12s\n", order.hosts,
                FleetManager::kAphs, "story", "served at s", "quiet at s", "handshakes", "most in 1 s",
                "messages", "most in 1 s");
  for (const StorySum& sum : sums) {
    out << Format("%-16s %11zu %10zu %11llu %12llu %10llu %12llu\n", sum.story.c_str(), sum.ready_at,
                  sum.quiet_at, Plain(sum.handshakes), Plain(sum.handshake_peak), Plain(sum.messages),
                  Plain(sum.message_peak));
  }
  const size_t bytes = ResidentBytes();
  const double took = std::chrono::duration<double>(machine.Now() - begin).count();
  const double agents = static_cast<double>(bytes) - static_cast<double>(fabric.bytes_without_agents());
  out << Format("real time %.1f s; memory %.0f MiB, of an agent with its connections %.0f KiB\n", took,
                static_cast<double>(bytes) / 1048576, agents / 1024 / order.hosts)
      << std::flush;
  return sums;
}

}  // namespace zem::fleet
