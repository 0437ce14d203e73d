// Attaches of VIFs with a manager that answers at once, against a bare client that makes the same calls to
// the library and to the manager.  Ends with lines "vifs CASE METRIC ours=NUMBER peer=NUMBER ratio=NUMBER"; a
// ratio above 1 means ours is better.
//
// bench_vifs [ROUNDS [FOLDER]]
//
// The port files are in memory, or in FOLDER.

#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "app/zema/ports/vif_timelines.h"
#include "bench/vifs/agent_side.h"
#include "bench/vifs/bare_side.h"
#include "bench/vifs/world.h"
#include "framework/log/logger.h"

namespace zem::bench {
namespace {

constexpr int kRounds = 5;
constexpr int kPairs = 4;  // with and without timelines, in each round
constexpr size_t kAttaches = 1000;
constexpr size_t kOneByOne = 500;
constexpr size_t kMoves = 500;
constexpr size_t kThreads = 30;
constexpr size_t kSizes[] = {100, 1000, 10000};

struct Figures {
  double ours = std::numeric_limits<double>::max();
  double peer = std::numeric_limits<double>::max();
};

double Seconds(const std::function<void()>& work) {
  const auto begun = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
}

double ProcessorSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double Percentile(std::vector<double> values, double share) {
  const auto at =
      values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

void Print(const std::string& name, const char* metric, double ours, double peer, double ratio) {
  std::printf("vifs %s %s ours=%.2f peer=%.2f ratio=%.2f\n", name.c_str(), metric, ours, peer, ratio);
}

// Reduces a call in the library's log to its kind, without time and port.
std::vector<std::string> Made(World& world) {
  std::vector<std::string> calls;
  for (const std::string& line : world.state().journal().Calls("\"function\"")) {
    const auto value = [&](const std::string& name) {
      const size_t at = line.find("\"" + name + "\":\"");
      if (at == std::string::npos) return std::string();
      const size_t begin = at + name.size() + 4;
      return line.substr(begin, line.find('"', begin) - begin);
    };
    calls.push_back(value("function") + " " + value("prop"));
  }
  std::sort(calls.begin(), calls.end());
  return calls;
}

// A socket that a thread empties, in place of the system log's.
class LogSocket {
 public:
  LogSocket() {
    Require(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends_) == 0, "no sockets for the log");
    reader_ = std::thread([end = ends_[1]] {
      char datagram[65536];
      while (::recv(end, datagram, sizeof(datagram), 0) > 0) {
      }
    });
    sink = ends_[0];
    Logger::SetEmitter([](int, const char* line) {
      ++lines;
      static_cast<void>(::send(sink, line, std::strlen(line), 0));
    });
  }
  ~LogSocket() {
    Quiet();
    static_cast<void>(::send(ends_[0], "", 0, 0));
    reader_.join();
    ::close(ends_[0]);
    ::close(ends_[1]);
  }
  /// Log lines are formatted and discarded.
  static void Quiet() {
    Logger::SetEmitter([](int, const char*) {});
  }

  static inline std::atomic<size_t> lines{0};

 private:
  static inline int sink = -1;
  int ends_[2];
  std::thread reader_;
};

class Bench {
 public:
  Bench(int rounds, const std::string& vms_folder)
      : rounds_(rounds), world_(vms_folder), agent_(world_), bare_(world_) {}

  int Run() {
    // The first search for VIFs reads all ports; that happens only once.
    Require(agent_.ports().holders().RefreshVifIndex(), "the ports were not read");
    CheckCalls();
    Warm();
    Require(agent_.threads() == kThreads, "the pool has not all threads");
    for (size_t i = 0; i < std::size(kSizes); ++i) {
      world_.FillUpTo(kSizes[i]);
      const double reading = Seconds([&] { agent_.ports().holders().RefreshVifIndex(); });
      std::printf("# %zu ports: read for the index in %.1f ms\n", kSizes[i], reading * 1e3);
      by_size_[i] = Throughput();
      if (i == 0) {
        Print("attach-1000", "attaches_per_s", kAttaches / by_size_[0].ours, kAttaches / by_size_[0].peer,
              by_size_[0].peer / by_size_[0].ours);
        InTurn();
        Latency();
        Logged();
        Timelines();
      }
      const double ours = by_size_[i].ours * 1e6 / kAttaches;
      const double peer = by_size_[i].peer * 1e6 / kAttaches;
      Print("existing-" + std::to_string(kSizes[i]), "us_per_attach", ours, peer, peer / ours);
      Moves(i);
    }
    const double ours = by_size_[2].ours / by_size_[0].ours;
    const double peer = by_size_[2].peer / by_size_[0].peer;
    Print("growth-100-to-10000", "times", ours, peer, peer / ours);
    Memory();
    Require(world_.state().journal().Violations().empty(), "a rule of the library was broken");
    return 0;
  }

 private:
  // Both have to make the same calls, otherwise the comparison means nothing.
  void CheckCalls() {
    const auto made = [this](const std::function<void(const std::vector<Vif>&)>& attach) {
      const auto vifs = world_.NewVifs(1);
      world_.state().journal().Clear();
      attach(vifs);
      std::vector<std::string> calls = Made(world_);
      world_.Check(vifs);
      world_.Remove(vifs);
      return calls;
    };
    const auto ours = made([this](const auto& vifs) { agent_.Attach(vifs, 1); });
    const auto peer = made([this](const auto& vifs) { bare_.Attach(vifs, 1); });
    if (ours == peer) {
      std::printf("# %zu calls of the library for an attach\n", ours.size());
      return;
    }
    for (const auto* const side : {&ours, &peer}) {
      std::fprintf(stderr, "%s:\n", side == &ours ? "ours" : "peer");
      for (const std::string& call : *side) std::fprintf(stderr, "  %s\n", call.c_str());
    }
    throw std::runtime_error("ours and the peer do not make the same calls");
  }

  std::vector<double> Once(const std::function<std::vector<double>(const std::vector<Vif>&)>& attach,
                           size_t count, double* seconds) {
    const auto vifs = world_.NewVifs(count);
    std::vector<double> took;
    *seconds = Seconds([&] { took = attach(vifs); });
    world_.Check(vifs);
    world_.Remove(vifs);
    world_.state().journal().Clear();
    return took;
  }

  void Warm() {
    double ignored = 0;
    Once([this](const auto& vifs) { return agent_.Attach(vifs, vifs.size()); }, 200, &ignored);
    Once([this](const auto& vifs) { return bare_.Attach(vifs, kThreads); }, 200, &ignored);
  }

  // The best of alternating rounds.
  Figures Throughput() {
    Figures best;
    for (int round = 0; round < rounds_; ++round) {
      double ours = 0;
      double peer = 0;
      Once([this](const auto& vifs) { return agent_.Attach(vifs, vifs.size()); }, kAttaches, &ours);
      Once([this](const auto& vifs) { return bare_.Attach(vifs, kThreads); }, kAttaches, &peer);
      best.ours = std::min(best.ours, ours);
      best.peer = std::min(best.peer, peer);
    }
    return best;
  }

  // Beside the bare client under the host's rule, that one thread at a time changes ports: what is left of
  // the difference is ours.  The processor time is of the whole process, the manager and the library
  // included.
  void InTurn() {
    Figures time;
    Figures processor;
    const auto take = [](Figures* best, double Figures::*side, double seconds) {
      best->*side = std::min(best->*side, seconds * 1e6 / kAttaches);
    };
    for (int round = 0; round < rounds_; ++round) {
      for (double Figures::*const side : {&Figures::ours, &Figures::peer}) {
        const bool ours = side == &Figures::ours;
        double seconds = 0;
        double used = 0;
        Once(
            [&](const auto& vifs) {
              const double before = ProcessorSeconds();
              auto took = ours ? agent_.Attach(vifs, vifs.size()) : bare_.Attach(vifs, kThreads, true);
              used = ProcessorSeconds() - before;
              return took;
            },
            kAttaches, &seconds);
        take(&time, side, seconds);
        take(&processor, side, used);
      }
    }
    Print("attach-1000-in-turn", "us_per_attach", time.ours, time.peer, time.peer / time.ours);
    Print("attach-1000-in-turn", "processor_us_per_attach", processor.ours, processor.peer,
          processor.peer / processor.ours);
  }

  // The bare client moves nothing, so each figure is compared with the one for the fewest ports.
  void Moves(size_t size) {
    double attach = std::numeric_limits<double>::max();
    double detach = std::numeric_limits<double>::max();
    for (int round = 0; round < rounds_; ++round) {
      const auto vifs = world_.NewVifs(kMoves);
      agent_.Attach(vifs, vifs.size());
      attach = std::min(attach, Seconds([&] { agent_.AttachNext(vifs, vifs.size()); }));
      detach = std::min(detach, Seconds([&] { agent_.DetachFirst(vifs, vifs.size()); }));
      world_.TakeMoved(vifs);
      world_.Remove(vifs);
      world_.state().journal().Clear();
    }
    if (size == 0) first_move_ = {attach, detach};
    const auto print = [&](const char* half, double ours, double first) {
      Print(half + std::to_string(kSizes[size]), "us_per_half", ours * 1e6 / kMoves, first * 1e6 / kMoves,
            first / ours);
    };
    print("move-attach-", attach, first_move_.first);
    print("move-detach-", detach, first_move_.second);
  }

  void Logged() {
    const LogSocket socket;
    const size_t before = LogSocket::lines;
    const Figures best = Throughput();
    Print("attach-1000-logged", "attaches_per_s", kAttaches / best.ours, kAttaches / best.peer,
          best.peer / best.ours);
    std::printf("# %zu lines for an attach\n",
                (LogSocket::lines - before) / kAttaches / static_cast<size_t>(rounds_));
  }

  // Processor time, because the difference is less than what other work on the machine does to the clock's.
  // One of each in turn, and the median of the pairs.
  void Timelines() {
    std::vector<double> with;
    std::vector<double> without;
    std::vector<double> times;
    for (int pair = 0; pair < kPairs * rounds_; ++pair) {
      const bool first = pair % 2 == 0;
      for (const bool keep : {first, !first}) {
        zema::KeepVifTimelines(keep);
        const auto vifs = world_.NewVifs(kAttaches);
        const double begun = ProcessorSeconds();
        agent_.Attach(vifs, vifs.size());
        (keep ? with : without).push_back((ProcessorSeconds() - begun) * 1e6 / kAttaches);
        world_.Check(vifs);
        world_.Remove(vifs);
        world_.state().journal().Clear();
      }
      times.push_back(without.back() / with.back());
    }
    zema::KeepVifTimelines(true);
    Print("timelines", "processor_us_per_attach", Percentile(with, 0.5), Percentile(without, 0.5),
          Percentile(times, 0.5));
  }

  void Latency() {
    struct {
      const char* name;
      size_t outstanding;
    } const cases[] = {{"one-at-a-time", 1}, {"thirty-at-a-time", kThreads}};
    for (const auto& row : cases) {
      Figures median;
      Figures tail;
      for (int round = 0; round < rounds_; ++round) {
        double ignored = 0;
        const auto ours =
            Once([&](const auto& vifs) { return agent_.Attach(vifs, row.outstanding); }, kOneByOne, &ignored);
        const auto peer =
            Once([&](const auto& vifs) { return bare_.Attach(vifs, row.outstanding); }, kOneByOne, &ignored);
        median.ours = std::min(median.ours, Percentile(ours, 0.5) * 1e6);
        median.peer = std::min(median.peer, Percentile(peer, 0.5) * 1e6);
        tail.ours = std::min(tail.ours, Percentile(ours, 0.99) * 1e6);
        tail.peer = std::min(tail.peer, Percentile(peer, 0.99) * 1e6);
      }
      Print(row.name, "median_us", median.ours, median.peer, median.peer / median.ours);
      Print(row.name, "p99_us", tail.ours, tail.peer, tail.peer / tail.ours);
    }
  }

  // Heap memory that an attached interface keeps; the peer is a table that only maps each VIF to its port.
  void Memory() {
    constexpr size_t kInterfaces = 2000;
    const auto vifs = world_.NewVifs(kInterfaces);
    const auto used = [] { return static_cast<double>(::mallinfo2().uordblks); };
    const double before = used();
    agent_.Attach(vifs, kThreads);
    const double ours = (used() - before) / kInterfaces;
    const double bare = used();
    std::unordered_map<std::string, std::pair<std::string, std::string>> table;
    for (const Vif& vif : vifs) table[vif.id] = {World::kDvs, vif.port};
    const double peer = (used() - bare) / kInterfaces;
    world_.Remove(vifs);
    Print("memory", "bytes_per_interface", ours, peer, peer / ours);
  }

  const int rounds_;
  World world_;
  AgentSide agent_;
  BareSide bare_;
  Figures by_size_[std::size(kSizes)];
  std::pair<double, double> first_move_;
};

}  // namespace
}  // namespace zem::bench

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : zem::bench::kRounds;
  if (rounds < 1) {
    std::fputs("usage: bench_vifs [ROUNDS [FOLDER]]\n", stderr);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  zem::bench::LogSocket::Quiet();
  try {
    return zem::bench::Bench(rounds, argc > 2 ? argv[2] : "").Run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vifs: %s\n", error.what());
    return 1;
  }
}
