#include "bench/guest-events/endurance.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <vector>

#include "app/ctxteng/engine/ctxt_core.h"
#include "bench/guest-events/bench_engine.h"
#include "platform/core/thread.h"

namespace zem::bench {
namespace {

using SteadyClock = std::chrono::steady_clock;
using sim::guest::GuestWorld;

constexpr int kGuests = 8;
constexpr auto kPatience = std::chrono::seconds(20);
// A stop waits at most so long for callbacks.
constexpr double kLongestStopS = 15;
constexpr double kMostGrowthMb = 64;
constexpr uint64_t kConnects = 0xE48;

double Seconds(SteadyClock::duration time) { return std::chrono::duration<double>(time).count(); }

double ResidentMb() {
  std::ifstream file("/proc/self/statm");
  double all = 0;
  double resident = 0;
  file >> all >> resident;
  return resident * 4096 / (1 << 20);
}

template <class Done>
bool Within(std::chrono::seconds limit, const Done& done) {
  const auto end = SteadyClock::now() + limit;
  while (!done()) {
    if (SteadyClock::now() > end) return false;
    SleepFor(std::chrono::milliseconds(1));
  }
  return true;
}

// Counts what does not hold.
class Checks {
 public:
  void Expect(bool holds, const char* what) {
    if (holds) return;
    ++failed_;
    std::printf("guest-events FAILED %s\n", what);
  }
  void ExpectNoViolations(const GuestWorld& world) {
    for (const std::string& violation : world.violations()) {
      Expect(false, ("the library complains: " + violation).c_str());
    }
  }
  int failed() const { return failed_; }

 private:
  int failed_ = 0;
};

// Connects and closes in one guest, as fast as it can.
class Storm {
 public:
  Storm(GuestWorld& world, int guest)
      : thread_([this, &world, name = NameOf(guest)] {
          while (!ends_) {
            world.Close(name, world.Connect(name, Connection()));
            ++rounds_;
          }
        }) {}
  ~Storm() { End(); }
  void End() {
    ends_ = true;
    if (thread_.joinable()) thread_.Join();
  }
  uint64_t rounds() const { return rounds_; }

 private:
  std::atomic<bool> ends_{false};
  std::atomic<uint64_t> rounds_{0};
  NativeThread thread_;
};

void WantConnects(GuestWorld& world) {
  auto& guests = Ctxt::CtxtCore::GetInstance().guests();
  guests.SetEventMaskForAllVms(Ctxt::kIdfwClient, kConnects & ~uint64_t{0xE00});
  world.Tick("");
}

bool AllMasked(const GuestWorld& world) {
  return std::ranges::all_of(world.guests(), [](const auto& guest) { return guest.mask == kConnects; });
}

bool Quiet(const GuestWorld& world) {
  return std::ranges::all_of(world.guests(), [](const auto& guest) { return guest.undelivered == 0; });
}

}  // namespace

int RunOverload(const std::string& folder, double seconds) {
  Checks checks;
  GuestWorld world(folder);
  for (int i = 1; i <= kGuests; ++i) AddGuest(world, i);
  NoFirewall firewall;
  const auto client = std::make_shared<CountingClient>();
  StartEngine(world, firewall, client);
  checks.Expect(
      Within(kPatience, [&] { return Ctxt::CtxtCore::GetInstance().guests().All().size() == kGuests; }),
      "every guest has a record");
  WantConnects(world);
  checks.Expect(Within(kPatience, [&] { return AllMasked(world); }), "every guest has its mask");

  // What the engine can take: each event is waited for.
  const auto calm = SteadyClock::now();
  uint64_t taken = 0;
  while (Seconds(SteadyClock::now() - calm) < std::max(seconds / 20, 0.2)) {
    for (int i = 1; i <= kGuests; ++i) world.Close(NameOf(i), world.Connect(NameOf(i), Connection()));
    while (!Quiet(world)) {
    }
    taken += kGuests;
  }
  const double sustainable = static_cast<double>(taken) / Seconds(SteadyClock::now() - calm);

  const double before = ResidentMb();
  double most = before;
  double longest_tick = 0;
  uint64_t offered = 0;
  const auto begin = SteadyClock::now();
  {
    std::vector<std::unique_ptr<Storm>> storms;
    for (int i = 2; i <= kGuests; ++i) storms.push_back(std::make_unique<Storm>(world, i));
    while (Seconds(SteadyClock::now() - begin) < seconds) {
      // The first guest is quiet: its timer has to be heard through the others' noise.
      Ctxt::CtxtCore::GetInstance().guests().SetEventMask(UuidOf(1), Ctxt::kIdsClient, 0x10);
      const auto asked = SteadyClock::now();
      world.Tick(NameOf(1));
      checks.Expect(Within(kPatience, [&] { return world.guest(NameOf(1)).mask == (kConnects | 0x10); }),
                    "a quiet guest is heard");
      longest_tick = std::max(longest_tick, Seconds(SteadyClock::now() - asked));
      Ctxt::CtxtCore::GetInstance().guests().SetEventMask(UuidOf(1), Ctxt::kIdsClient, 0);
      world.Tick(NameOf(1));
      Within(kPatience, [&] { return world.guest(NameOf(1)).mask == kConnects; });
      most = std::max(most, ResidentMb());
      SleepFor(std::chrono::milliseconds(20));
    }
    for (const auto& storm : storms) {
      storm->End();
      offered += storm->rounds();
    }
  }
  const double rate = static_cast<double>(offered) / Seconds(SteadyClock::now() - begin);
  checks.Expect(Within(kPatience, [&] { return Quiet(world); }), "all that was taken is delivered");
  uint64_t delivered = 0;
  uint64_t dropped = 0;
  for (const auto& guest : world.guests()) {
    const auto& counts = guest.counts;
    checks.Expect(counts.offered == counts.delivered + counts.filtered + counts.dropped,
                  "every event was delivered, filtered or dropped");
    delivered += counts.delivered;
    dropped += counts.dropped;
  }
  // The table has one connection, whose user is in no more than a few entries.
  checks.Expect(client->connections() == delivered, "the client got what was delivered");
  checks.Expect(most - before < kMostGrowthMb, "memory stays bounded");
  checks.ExpectNoViolations(world);
  std::printf("guest-events overload events/s offered=%.0f sustainable=%.0f times=%.1f\n", rate, sustainable,
              rate / sustainable);
  std::printf("guest-events overload delivered=%lu dropped=%lu growth=%.1fMB quiet-guest=%.1fms\n", delivered,
              dropped, most - before, longest_tick * 1e3);
  Ctxt::CtxtCore::GetInstance().Shutdown(kClients);
  return checks.failed();
}

int RunRestarts(const std::string& folder, int count) {
  Checks checks;
  GuestWorld world(folder);
  for (int i = 1; i <= kGuests; ++i) AddGuest(world, i);
  NoFirewall firewall;
  const auto client = std::make_shared<CountingClient>();
  std::vector<std::unique_ptr<Storm>> storms;
  for (int i = 1; i <= 2; ++i) storms.push_back(std::make_unique<Storm>(world, i));
  double longest = 0;
  Ctxt::CtxtCore& core = Ctxt::CtxtCore::GetInstance();
  for (int round = 0; round < count; ++round) {
    StartEngine(world, firewall, client);
    WantConnects(world);
    // In turns at once and in the middle of events.
    if (round % 4 != 0) {
      const uint64_t seen = client->connections();
      Within(kPatience, [&] {
        WantConnects(world);
        return client->connections() > seen + static_cast<uint64_t>(round % 7);
      });
    }
    std::weak_ptr<Ctxt::VmData> record = core.guests().Find(UuidOf(1));
    const auto begin = SteadyClock::now();
    core.Shutdown(kClients);
    longest = std::max(longest, Seconds(SteadyClock::now() - begin));
    const uint64_t at_stop = client->connections();
    checks.Expect(record.expired(), "no record is left");
    checks.Expect(core.guests().All().empty(), "the table is empty");
    checks.Expect(!world.mux().attached, "the library is unloaded");
    checks.Expect(client->connections() == at_stop, "no callback comes after the stop");
    if (checks.failed() != 0) break;
  }
  checks.Expect(longest < kLongestStopS, "no stop hangs");
  checks.ExpectNoViolations(world);
  std::printf("guest-events restarts count=%d longest-stop=%.0fms events=%lu\n", count, longest * 1e3,
              client->connections());
  return checks.failed();
}

}  // namespace zem::bench
