// A random life of guests, users and connections, with a multiplexer and a firewall that lose everything.
// When it comes to rest, the engine knows what the guests say, and nothing else.

#include <random>
#include <set>

#include "tests/app/ctxteng/engine/engine_fixture.h"

namespace Ctxt::test {
namespace {

using testing::IsEmpty;
using zem::sim::guest::Guest;
using zem::sim::guest::Operation;
using zem::sim::guest::System;

class GuestLifeTest : public EngineTest, public testing::WithParamInterface<int> {
 protected:
  static constexpr int kGuests = 4;
  static constexpr int kSteps = 400;

  void Step() {
    const std::string name = "g" + std::to_string(Number(kGuests));
    const Guest guest = world.guest(name);
    switch (Number(14)) {
      case 0:
        return guest.on ? PowerOff(name) : PowerOn(name);
      case 1:
      case 2:
      case 3:
        if (guest.on) world.Logon(name, {.user = "alice"});
        return;
      case 4:
      case 5:
        if (!guest.sessions.empty()) world.Logoff(name, guest.sessions.begin()->first);
        return;
      case 6:
        if (!guest.sessions.empty()) {
          const auto& session = guest.sessions.begin()->second;
          world.SetSession(name, session.id, !session.active);
        }
        return;
      case 7:
        return world.Tick({});
      case 8:
        return world.Reannounce();
      case 9:
        firewall.reachable = !firewall.reachable;
        return;
      case 10: {
        std::lock_guard lock(firewall.mutex);
        firewall.groups.clear();
        return;
      }
      case 11:
        core.guests().SetEventMaskForAllVms(kIdfwClient, Number(2) == 0 ? 0 : 0x48);
        return;
      case 12:
        core.guests().SetProtocolMask(Number(2) == 0 ? 0x600 : 0xE00);
        return;
      default:
        if (guest.on) world.Close(name, world.Connect(name, Tcp(Number(2) == 0 ? 100 : 200)));
        return;
    }
  }

  void PowerOn(const std::string& name) {
    world.PowerOn(name);
    world.StartProcess(name, Process(100, "alice"));
    world.StartProcess(name, Process(200, "SYSTEM"));
  }
  void PowerOff(const std::string& name) { world.PowerOff(name); }

  void Check() {
    firewall.reachable = true;
    clock.Settle();
    core.guests().SetEventMaskForAllVms(kIdfwClient, 0x48);
    core.guests().SetProtocolMask(0xE00);
    Tick();
    std::set<std::string> on;
    for (const Guest& guest : world.guests()) {
      SCOPED_TRACE(guest.name);
      EXPECT_EQ(guest.counts.offered,
                guest.counts.delivered + guest.counts.filtered + guest.counts.dropped + guest.undelivered);
      EXPECT_EQ(guest.counts.refused, 0u);
      const std::string key = Key(guest);
      const auto vm = core.guests().Find(key);
      EXPECT_EQ(vm != nullptr, guest.on);
      if (!guest.on) {
        EXPECT_FALSE(core.users().HasDesktop(key));
        continue;
      }
      on.insert(key);
      EXPECT_EQ(guest.mask, 0xE48u);
      EXPECT_EQ(core.guests().Resolve(vm.get()), vm);
      for (uint32_t session = 1; session < 200; ++session) {
        if (guest.sessions.count(session) != 0) continue;
        EXPECT_EQ(core.users().FindSession(SessionKey(key, session)), nullptr) << session;
      }
      EXPECT_FALSE(guest.sessions.empty() && core.users().HasDesktop(key));
      // Each user's next connection is programmed under that user's key, whatever was lost before.
      const size_t before = firewall.connections.size();
      Connect(guest.name);
      ASSERT_EQ(firewall.connections.size(), before + 1);
      EXPECT_EQ(firewall.connections.back().nc_vc_uuid, guest.vc_uuid);
      EXPECT_EQ(firewall.connections.back().user_dfw_key,
                guest.windows() ? std::string(kAlice) : "L-" + key + ":1000");
    }
    std::set<std::string> known;
    for (const auto& [key, vm] : idfw->guests) known.insert(key);
    EXPECT_EQ(known, on);
    EXPECT_EQ(core.guests().All().size(), on.size());
    EXPECT_THAT(world.violations(), IsEmpty());
  }

  static std::string Key(const Guest& guest) { return guest.vc_uuid; }
  int Number(int below) { return static_cast<int>(random() % static_cast<unsigned>(below)); }

  std::mt19937 random{static_cast<unsigned>(GetParam())};
};

TEST_P(GuestLifeTest, AtRestTheEngineKnowsWhatTheGuestsSay) {
  Start();
  constexpr System kSystems[] = {System::kWindows, System::kMultiSession, System::kLinux, System::kWindows};
  for (int i = 0; i < kGuests; ++i) {
    AddGuest("g" + std::to_string(i), kSystems[i], "502a1122-3344-5566-7788-99aabbccdd0" + std::to_string(i));
  }
  for (int step = 1; step <= kSteps; ++step) {
    Step();
    if (Number(3) == 0) clock.Settle();
    if (step % 50 == 0) Check();
    if (step % 200 == 0) {
      Stop();
      EXPECT_THAT(core.guests().All(), IsEmpty());
      idfw->guests.clear();
      Start();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, GuestLifeTest, testing::Range(1, 9));

}  // namespace
}  // namespace Ctxt::test
