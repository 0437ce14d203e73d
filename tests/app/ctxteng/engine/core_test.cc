#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/guest/endvat_util.h"
#include "platform/core/thread.h"
#include "tests/app/ctxteng/engine/engine_fixture.h"

namespace Ctxt::test {
namespace {

using testing::IsEmpty;
using testing::SizeIs;
using zem::sim::guest::Event;
using zem::sim::guest::Garbage;
using zem::sim::guest::Operation;
using zem::sim::guest::System;

class CoreTest : public EngineTest {};

// A mask goes to the library at the guest's tick and not before; one that the library refuses goes again.
TEST_F(CoreTest, MaskReachesTheLibraryAtTheTick) {
  Start();
  AddGuest("d1", System::kWindows, kDesktopUuid);
  EXPECT_EQ(world.guest("d1").mask, 0u);
  world.SetFault({.operation = Operation::kSetMask, .times = 1, .status = ENDVAT_ERROR_TIMEOUT});
  Tick();
  EXPECT_EQ(world.guest("d1").mask, 0u);
  Tick();
  EXPECT_EQ(world.guest("d1").mask, 0xE48u);
  const auto asked = world.questions()["EndvatSetConfiguration"];
  Tick();
  EXPECT_EQ(world.questions()["EndvatSetConfiguration"], asked);

  core.guests().SetProtocolMask(0x200);
  EXPECT_EQ(world.guest("d1").mask, 0xE48u);
  Tick();
  EXPECT_EQ(world.guest("d1").mask, 0x248u);
}

TEST_F(CoreTest, WishesOfTheClientsAreJoined) {
  GuestTable guests;
  const auto vm = std::make_shared<VmData>();
  vm->vc_uuid = kDesktopKey;
  guests.Add(vm);
  EXPECT_FALSE(guests.GetEventMaskIfDirty(kDesktopKey));
  guests.SetEventMask(kDesktopKey, kIdfwClient, 0);
  EXPECT_FALSE(guests.IsClientEnabled(kDesktopKey, kIdfwClient));
  EXPECT_FALSE(guests.IsNetworkEventEnabled(kDesktopKey, kZemiClient, 0));
  guests.SetEventMaskForAllVms(kIdfwClient, 0x48);
  guests.SetEventMask(kDesktopKey, kZemiClient, 0x8E);
  const auto dirty = guests.GetEventMaskIfDirty(kDesktopKey);
  ASSERT_TRUE(dirty);
  EXPECT_EQ(dirty->mask, 0xECEu);
  // What changes between the reading and the library's answer is not lost.
  guests.SetEventMask(kDesktopKey, kIdsClient, 0x48);
  guests.ResetDirtyBits(kDesktopKey, dirty->generation);
  EXPECT_TRUE(guests.GetEventMaskIfDirty(kDesktopKey));

  EXPECT_TRUE(guests.IsClientEnabled(kDesktopKey, kZemiClient));
  const bool idfw_wants[] = {true, false, false, false, false, false, false};
  for (uint32_t type = 0; type < std::size(idfw_wants); ++type) {
    EXPECT_EQ(guests.IsNetworkEventEnabled(kDesktopKey, kIdfwClient, type), idfw_wants[type]) << type;
    EXPECT_TRUE(guests.IsNetworkEventEnabled(kDesktopKey, kZemiClient, type));
  }
  guests.SetEventMask(kDesktopKey, 7, 0x48);
  EXPECT_TRUE(log.Contains("Invalid client type, failed to set event mask 000001001000 for vmId"));
  guests.SetEventMask("nobody", kIdfwClient, 0x48);
  EXPECT_TRUE(log.Contains("Entry not found for VM nobody in powerOnVmMap, returning"));
  EXPECT_FALSE(guests.IsClientEnabled("nobody", kIdfwClient));
}

// The library announces a running guest again before it ends the old run: the guest must survive that.
TEST_F(CoreTest, AnnouncedAgainTheGuestStays) {
  Start();
  AddGuest("d1", System::kWindows, kDesktopUuid);
  const auto first = core.guests().Find(kDesktopKey);
  world.Reannounce();
  clock.Settle();
  const auto second = core.guests().Find(kDesktopKey);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, first);
  EXPECT_EQ(core.guests().Resolve(first.get()), nullptr);
  EXPECT_TRUE(log.Contains("CtxtCore: Found an existing power-on VM entry"));
  EXPECT_TRUE(log.Contains("CtxtCore: Did not find power-on VM entry"));
  EXPECT_THAT(idfw->guests, SizeIs(1));
  Tick();
  EXPECT_EQ(world.guest("d1").mask, 0xE48u);
  world.PowerOff("d1");
  clock.Settle();
  EXPECT_EQ(core.guests().Find(kDesktopKey), nullptr);
  EXPECT_THAT(idfw->guests, IsEmpty());
  EXPECT_THAT(world.violations(), IsEmpty());
}

// The library refuses the new run's record and ends the old run: the clients must learn that the guest is
// gone.
TEST_F(CoreTest, AnnouncedAgainWithoutARecordTheGuestStillEnds) {
  Start();
  AddGuest("d1", System::kWindows, kDesktopUuid);
  world.SetFault({.operation = zem::sim::guest::Operation::kSetData, .status = ENDVAT_ERROR_TIMEOUT});
  world.Reannounce();
  clock.Settle();
  EXPECT_TRUE(log.Contains("CtxtCore: Failed to set the data of VM"));
  EXPECT_THAT(idfw->guests, IsEmpty());
  EXPECT_EQ(core.guests().Find(kDesktopKey), nullptr);
}

// What belongs to a guest that is off must not be found by the next guest with its name.
TEST_F(CoreTest, PowerOffForgetsTheUsers) {
  Start();
  AddGuest("d1", System::kWindows, kDesktopUuid);
  Tick();
  Logon("d1", 1);
  world.PowerOff("d1");
  clock.Settle();
  EXPECT_FALSE(core.users().HasDesktop(kDesktopKey));
  EXPECT_EQ(core.users().FindSession(SessionKey(kDesktopKey, 1)), nullptr);
}

TEST_F(CoreTest, GuestWithoutIdentityHasNoRecord) {
  Start();
  for (const char* uuid : {"", "50 2a 11 22"}) {
    log.Clear();
    AddGuest(std::string("n") + uuid, System::kWindows, uuid);
    EXPECT_TRUE(log.Contains("CtxtCore: Skipping the VM: "));
    Tick();
    EXPECT_TRUE(log.Contains("CtxtCore: Ignoring timer event due to NULL vmdata"));
    Logon(std::string("n") + uuid);
    EXPECT_TRUE(log.Contains("CtxtCore: Ignoring system event due to NULL vmdata"));
    EXPECT_EQ(world.guest(std::string("n") + uuid).mask, 0u);
    world.PowerOff(std::string("n") + uuid);
    clock.Settle();
    EXPECT_TRUE(log.Contains("CtxtCore: Ignoring VM power off event due to NULL vmdata"));
  }
  EXPECT_THAT(core.guests().All(), IsEmpty());
}

// The versions are asked for at every fifth tick from the first on, until they are known.
TEST_F(CoreTest, IntrospectionVersionsAreTriedEveryFifthTick) {
  pace = std::make_shared<RecordingClient>();
  pace->type = kZemiClient;
  Start(kZemiBit);
  AddGuest("d1", System::kWindows, kDesktopUuid, [](auto& guest) { guest.ready_in = 7; });
  for (int i = 0; i < 16; ++i) Tick();
  for (const char* tick : {"timer 0,", "timer 5,", "timer 10,"}) EXPECT_TRUE(log.Contains(tick)) << tick;
  EXPECT_EQ(log.Count("CtxtCore: Trying to get GI Info"), 3u);
  EXPECT_EQ(pace->gi, 1);
  EXPECT_EQ(core.guests().Find(kDesktopKey)->gi.tools_version, "12.2.0");
}

// An agent too old to say what it runs on counts as a multi-session Windows.
TEST_F(CoreTest, OldAgentCountsAsWindows) {
  Start();
  AddGuest("d1", System::kWindows, kDesktopUuid, [](auto& guest) { guest.old_agent = true; });
  const auto vm = core.guests().Find(kDesktopKey);
  ASSERT_NE(vm, nullptr);
  EXPECT_EQ(vm->os.os_type, kWindows);
  EXPECT_TRUE(vm->os.terminal_svc_enabled);
  EXPECT_TRUE(log.Contains("VmData: Could not fetch host type, default value set as RDSH"));
}

TEST_F(CoreTest, OperatingSystemsAreTold) {
  Start();
  AddGuest("d1", System::kWindows, kDesktopUuid);
  AddGuest("l1", System::kLinux, "602a1122-3344-5566-7788-99aabbccdd02");
  AddGuest("o1", System::kOther, "702a1122-3344-5566-7788-99aabbccdd03");
  const OsInfo& desktop = core.guests().Find(kDesktopKey)->os;
  EXPECT_FALSE(desktop.terminal_svc_enabled);
  EXPECT_EQ(desktop.build_number, "17763");
  EXPECT_EQ(desktop.service_pack, "Service Pack 1");
  EXPECT_EQ(desktop.product_type, "WORKSTATION");
  const OsInfo& linux_guest = core.guests().Find("602a1122-3344-5566-7788-99aabbccdd02")->os;
  EXPECT_EQ(linux_guest.distribution_release, "12");
  EXPECT_EQ(linux_guest.os, "Linux");
  EXPECT_TRUE(log.Contains("CtxtCore: Invalid OS Type 9"));
  EXPECT_EQ(core.guests().Find("702a1122-3344-5566-7788-99aabbccdd03")->os.os_type, 0u);
}

// A callback that runs at the stop still has its record; one that comes later does nothing.
TEST_F(CoreTest, ShutdownWaitsForTheCallbacksThatRun) {
  Start();
  AddGuest("d1", System::kWindows, kDesktopUuid);
  Tick();
  Logon("d1");
  idfw->on_event = [this] {
    zem::SleepFor(std::chrono::seconds(5));
    EXPECT_EQ(idfw->shutdowns, 0);
    EXPECT_NE(core.guests().Find(kDesktopKey), nullptr);
  };
  const auto begin = clock.Now();
  world.Connect("d1", Tcp());
  world.Connect("d1", Tcp());
  clock.RunFor(std::chrono::seconds(1));
  Stop();
  EXPECT_LT(clock.Now() - begin, std::chrono::seconds(10));
  EXPECT_EQ(idfw->connections.size(), 1u);
  EXPECT_EQ(idfw->shutdowns, 1);
  EXPECT_THAT(core.guests().All(), IsEmpty());
  EXPECT_EQ(core.NetworkEventHandler(0, nullptr, nullptr), 1u);
  EXPECT_FALSE(log.Contains("Ignoring network event due to NULL vmdata"));
}

// A client that takes for ever to start must neither hold up the stop nor enable the library behind it.
TEST_F(CoreTest, ShutdownDuringAHangingStart) {
  idfw->on_initialize = [] { zem::SleepFor(std::chrono::seconds(60)); };
  Start();
  const auto begin = clock.Now();
  Stop();
  EXPECT_LE(clock.Now() - begin, std::chrono::seconds(15));
  clock.RunFor(std::chrono::seconds(120));
  EXPECT_FALSE(log.Contains("Enabling Context library callbacks"));
  EXPECT_EQ(idfw->shutdowns, 1);
  EXPECT_EQ(core.active_clients(), 0u);
}

TEST_F(CoreTest, ClientThatFailsToStartLeavesTheRestOff) {
  ids = std::make_shared<RecordingClient>();
  idfw->on_initialize = [] { throw CtxtException("no luck"); };
  Start(kIdfwBit | kIdsBit);
  EXPECT_EQ(core.active_clients(), 0u);
  EXPECT_TRUE(log.Contains("Exception while initializing context clients, error: Ctxt::CtxtException@tid="));
  EXPECT_TRUE(world.mux().attached);
}

// No record, callback or thread may be left behind, however the stop meets the events.
TEST_F(CoreTest, StartsAndStopsUnderEvents) {
  Start();
  AddGuest("d1", System::kWindows, kDesktopUuid);
  for (int round = 0; round < 200; ++round) {
    if (!started) Start();
    Tick();
    world.Connect("d1", Tcp());
    world.Logon("d1", {.id = static_cast<uint32_t>(round + 1), .user = "alice"});
    std::weak_ptr<VmData> record = core.guests().Find(kDesktopKey);
    Stop();
    ASSERT_TRUE(record.expired() || record.use_count() == static_cast<long>(idfw->guests.size()));
    idfw->guests.clear();
    ASSERT_TRUE(record.expired());
    ASSERT_FALSE(world.mux().attached);
  }
  EXPECT_THAT(world.violations(), IsEmpty());
}

TEST_F(CoreTest, LibraryThatRefusesIsUnloaded) {
  CtxtCore::Settings settings{.listen_port = "99999", .worker_threads = "2", .max_events_per_vm = "50"};
  EngineParts parts;
  parts.make_library = [this] { return zem::sim::guest::MakeSimEndvatLib(world); };
  parts.firewall = &firewall;
  EXPECT_THROW(core.Initialize(settings, parts, nullptr, nullptr), EndvatApiError);
  EXPECT_TRUE(log.Contains("Failed to initialize Context library: Ctxt::EndvatApiError@tid="));
  settings.listen_port.clear();
  EXPECT_THROW(core.Initialize(settings, parts, nullptr, nullptr), CtxtInvalidParameterError);
  core.Shutdown(0);
  EXPECT_TRUE(log.Contains("CtxtCore: Unloaded Context library"));
}

TEST_F(CoreTest, MultiplexerIsTriedFourTimesWhileItsSocketIsMissing) {
  Start();
  world.SetFault({.operation = Operation::kConfigureMux, .status = ENDVAT_MUX_ERROR_UNIX_SOCKET});
  EXPECT_EQ(EndvatUtil::ConfigureMux("", 0), ENDVAT_MUX_ERROR_UNIX_SOCKET);
  EXPECT_EQ(log.Count("Retry attempt"), 3u);
  EXPECT_EQ(world.questions()["EndvatConfigureMux"], 4u);
  world.ClearFaults();
  world.SetFault({.operation = Operation::kConfigureMux, .status = ENDVAT_MUX_ERROR_PARSING_CONFIG});
  EXPECT_EQ(EndvatUtil::ConfigureMux("", 0), ENDVAT_MUX_ERROR_PARSING_CONFIG);
  EXPECT_EQ(world.questions()["EndvatConfigureMux"], 5u);
  EXPECT_TRUE(log.Contains("EndvatUtil: Failed to configure Mux, error: ENDVAT_MUX_ERROR_PARSING_CONFIG"));
}

TEST_F(CoreTest, LibraryErrorsAndPanicsAreLogged) {
  Start();
  world.Raise(Event::Kind::kError, ENDVAT_ERROR_NO_MEMORY);
  world.Raise(Event::Kind::kPanic, 0);
  world.Raise(Event::Kind::kMux, 9);
  world.ServiceVm("solution-1", true);
  clock.Settle();
  EXPECT_TRUE(log.Contains("behavior may be undefined, ENDVAT_ERROR_NO_MEMORY"));
  EXPECT_TRUE(log.Contains("errorCode=\"CTX179\""));
  EXPECT_TRUE(log.Contains("CtxtCore: Unknown event received from Mux"));
  EXPECT_TRUE(log.Contains("CtxtCore: Solution Id from Mux for Solution Connect:{solution-1}"));
}

}  // namespace
}  // namespace Ctxt::test
