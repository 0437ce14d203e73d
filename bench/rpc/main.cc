// The project's RPC library against gRPC and against the floor, in one process each, one after the other,
// best of three.  Ends with lines "rpc CASE METRIC ours=NUMBER peer=NUMBER ratio=NUMBER"; a ratio above 1
// means ours is better.

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>

#include "bench/rpc/bench.h"

namespace zem::bench {

double CpuUs() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto us = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec);
  };
  return us(usage.ru_utime) + us(usage.ru_stime);
}

EchoResult EchoMeter::End() {
  const double seconds = std::chrono::duration<double>(Now() - begun_).count();
  EchoResult result;
  result.calls_per_second = done_ / seconds;
  result.cpu_us_per_call = (CpuUs() - cpu_) / done_;
  std::sort(times_.begin(), times_.end());
  result.median_us = times_[times_.size() / 2];
  result.p99_us = times_[times_.size() * 99 / 100];
  return result;
}

namespace {

constexpr int kRounds = 3;

struct Figures {
  EchoResult echo;
  StreamResult stream;
};

struct Line {
  std::string name;
  EchoCase echo;
  bool stream = false;
};

// Keeps the best of each figure over some rounds, because other work on the machine can only make figures
// worse.
Figures Measure(Subject& subject, const Line& line) {
  Figures best;
  for (int round = 0; round < kRounds; ++round) {
    if (line.stream) {
      const StreamResult r = subject.Stream(300000, 1024);
      if (round == 0 || r.messages_per_second > best.stream.messages_per_second) best.stream = r;
      continue;
    }
    const EchoResult r = subject.Echo(line.echo);
    if (round == 0) best.echo = r;
    best.echo.calls_per_second = std::max(best.echo.calls_per_second, r.calls_per_second);
    best.echo.cpu_us_per_call = std::min(best.echo.cpu_us_per_call, r.cpu_us_per_call);
    best.echo.median_us = std::min(best.echo.median_us, r.median_us);
    best.echo.p99_us = std::min(best.echo.p99_us, r.p99_us);
  }
  return best;
}

void Print(const std::string& name, const char* metric, double ours, double peer, bool more_is_better) {
  std::printf("rpc %s %s ours=%.2f peer=%.2f ratio=%.2f\n", name.c_str(), metric, ours, peer,
              more_is_better ? ours / peer : peer / ours);
}

int Main(const char* only, const char* subjects) {
  std::vector<Line> lines;
  for (const size_t size : {64, 4096}) {
    for (const int outstanding : {1, 16, 64, 256}) {
      EchoCase c;
      c.size = size;
      c.outstanding = outstanding;
      c.calls = outstanding == 1 ? 20000 : 100000;
      lines.push_back({"echo-" + std::to_string(size) + "-" + std::to_string(outstanding), c});
    }
  }
  EchoCase slow;
  slow.outstanding = 64;
  slow.calls = 100000;
  slow.slow = true;
  lines.push_back({"slow-64-64", slow});
  lines.push_back({"stream-1024", {}, true});

  const std::map<std::string, std::function<std::unique_ptr<Subject>()>> makers = {
      {"ours", MakeOurs}, {"grpc", MakeGrpc}, {"floor", MakeFloor}};
  std::map<std::string, std::map<std::string, Figures>> all;
  for (const auto& [who, make] : makers) {
    if (subjects != nullptr && std::strstr(subjects, who.c_str()) == nullptr) continue;
    const auto subject = make();
    EchoCase warm;
    warm.outstanding = 16;
    warm.calls = 5000;
    subject->Echo(warm);
    for (const Line& line : lines) {
      if (only != nullptr && std::strcmp(only, "all") != 0 && line.name.find(only) == std::string::npos)
        continue;
      if (line.echo.slow && who == "floor") continue;
      const Figures f = Measure(*subject, line);
      all[line.name][who] = f;
      if (line.stream) {
        std::printf("%-6s %-14s %9.0f messages/s  %6.2f us CPU each\n", who.c_str(), line.name.c_str(),
                    f.stream.messages_per_second, f.stream.cpu_us_per_message);
      } else {
        std::printf("%-6s %-14s %9.0f calls/s  %6.2f us CPU each  median %7.1f us  p99 %7.1f us\n",
                    who.c_str(), line.name.c_str(), f.echo.calls_per_second, f.echo.cpu_us_per_call,
                    f.echo.median_us, f.echo.p99_us);
      }
      std::fflush(stdout);
    }
  }
  for (const Line& line : lines) {
    auto& by = all[line.name];
    for (const char* peer : {"grpc", "floor"}) {
      if (by.count("ours") == 0 || by.count(peer) == 0) continue;
      const Figures& a = by["ours"];
      const Figures& b = by[peer];
      const std::string name = line.name + "/" + peer;
      if (line.stream) {
        Print(name, "messages-per-second", a.stream.messages_per_second, b.stream.messages_per_second, true);
        Print(name, "cpu-us", a.stream.cpu_us_per_message, b.stream.cpu_us_per_message, false);
        continue;
      }
      Print(name, "calls-per-second", a.echo.calls_per_second, b.echo.calls_per_second, true);
      Print(name, "cpu-us", a.echo.cpu_us_per_call, b.echo.cpu_us_per_call, false);
      Print(name, "median-us", a.echo.median_us, b.echo.median_us, false);
      Print(name, "p99-us", a.echo.p99_us, b.echo.p99_us, false);
    }
  }
  if (all["slow-64-64"].count("ours") != 0 && all["echo-64-64"].count("ours") != 0) {
    // The cost of slow handlers for the fast calls: the p99 of the fast ones with and without them.
    for (const char* who : {"ours", "grpc"}) {
      if (all["slow-64-64"].count(who) == 0) continue;
      std::printf("%s: p99 of the fast calls with slow ones among them is %.2f of that without\n", who,
                  all["slow-64-64"][who].echo.p99_us / all["echo-64-64"][who].echo.p99_us);
    }
  }
  return 0;
}

}  // namespace
}  // namespace zem::bench

int main(int argc, char** argv) {
  return zem::bench::Main(argc > 1 ? argv[1] : nullptr, argc > 2 ? argv[2] : nullptr);
}
