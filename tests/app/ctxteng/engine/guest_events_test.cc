#include "platform/hash/jhash.h"
#include "tests/app/ctxteng/engine/engine_fixture.h"

namespace Ctxt::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using zem::sim::guest::Fault;
using zem::sim::guest::Garbage;
using zem::sim::guest::Operation;
using zem::sim::guest::System;

class GuestEventsTest : public EngineTest {
 protected:
  // A desktop whose mask the library has.
  void StartWithDesktop() {
    Start();
    AddGuest("d1", System::kWindows, kDesktopUuid);
    Tick();
  }
};

// Each offset, pointer or unit that is read wrongly shows up in one of these fields.
TEST_F(GuestEventsTest, ConnectionCarriesUserProcessAndGroups) {
  StartWithDesktop();
  Logon("d1", 5);
  Connect("d1");
  ASSERT_EQ(idfw->connections.size(), 1u);
  const ConnInfo& info = idfw->connections[0];
  EXPECT_EQ(info.vc_uuid, kDesktopKey);
  EXPECT_EQ(info.nc_vc_uuid, kDesktopUuid);
  EXPECT_EQ(info.src_ip, "10.0.0.1");
  EXPECT_EQ(info.src_port, 4000);
  EXPECT_EQ(info.dest_ip, "10.0.0.2");
  EXPECT_EQ(info.dest_port, 443);
  EXPECT_EQ(info.ip_version, 0u);
  EXPECT_EQ(info.protocol, 6u);
  EXPECT_EQ(info.conn_type, CONN_TYPE_PRE_CONNECT);
  EXPECT_EQ(info.sid, kAlice);
  EXPECT_EQ(info.user_dfw_key, kAlice);
  EXPECT_EQ(info.user_hash, zem::jhash32(kAlice));
  EXPECT_EQ(info.username, "alice");
  EXPECT_EQ(info.domainname, "corp");
  EXPECT_FALSE(info.missed_login);
  EXPECT_THAT(info.group_keys, ElementsAre("S-1-5-21-1-1-1-513", "S-1-5-32-545"));
  EXPECT_EQ(info.process_name, "C:\\a.exe");
  EXPECT_EQ(info.cmdline, "a.exe -x");
  EXPECT_EQ(info.pid, 100u);
  EXPECT_EQ(info.ctime, 7u);
  const std::string hash(32, '\x5a');
  EXPECT_EQ(info.process_dfw_key, zem::jhash64("a.exe -x", zem::jhash64(hash)));
  EXPECT_EQ(info.process_hash.substr(0, 8), "5a5a5a5a");
  EXPECT_EQ(info.process_hash.size(), 64u);
  ASSERT_EQ(firewall.connections.size(), 1u);
  EXPECT_EQ(firewall.connections[0].nc_vc_uuid, kDesktopUuid);
  EXPECT_THAT(world.violations(), IsEmpty());
}

// The firewall's rules name users: what a service does for the user of a desktop counts as the user's, with
// the groups of that user's session, and only there and only while that user is logged on.
TEST_F(GuestEventsTest, SystemAccountOfADesktopIsReplacedByItsUser) {
  StartWithDesktop();
  AddGuest("r1", System::kMultiSession, "60 2a 11 22 33 44 55 66-77 88 99 aa bb cc dd 02");
  Tick();
  const uint32_t session = Logon("d1", 3);
  Logon("r1", 9);  // the same user's entry in the cache now names the other guest's session
  Connect("d1", Tcp(200));
  Connect("r1", Tcp(200));
  Logoff("d1", session);
  Connect("d1", Tcp(200));
  ASSERT_EQ(idfw->connections.size(), 3u);
  EXPECT_EQ(idfw->connections[0].sid, kAlice);
  EXPECT_EQ(idfw->connections[0].session.session_id, 3);
  EXPECT_THAT(idfw->connections[0].group_keys, ElementsAre("S-1-5-21-1-1-1-513", "S-1-5-32-545"));
  EXPECT_EQ(idfw->connections[1].sid, kSystemAccount);
  EXPECT_EQ(idfw->connections[2].sid, kSystemAccount);
}

// Two guests' uids are two people.
TEST_F(GuestEventsTest, LinuxKeysHoldTheGuest) {
  Start();
  AddGuest("l1", System::kLinux, kDesktopUuid);
  Tick();
  Connect("l1");
  ASSERT_EQ(idfw->connections.size(), 1u);
  const ConnInfo& info = idfw->connections[0];
  EXPECT_EQ(info.os_type, kLinux);
  EXPECT_EQ(info.uid, 1000);
  EXPECT_EQ(info.user_dfw_key, std::string("L-") + kDesktopKey + ":1000");
  EXPECT_THAT(info.group_keys, ElementsAre(std::string("L-") + kDesktopKey + ":1000",
                                           std::string("L-") + kDesktopKey + ":27"));
  EXPECT_TRUE(info.missed_login);
  EXPECT_THAT(firewall.calls, ElementsAre("groups " + info.user_dfw_key, "user " + info.user_dfw_key));
  const uint32_t session = Logon("l1");
  Connect("l1");
  EXPECT_FALSE(idfw->connections[1].missed_login);
  Logoff("l1", session);
  Connect("l1");
  EXPECT_TRUE(idfw->connections[2].missed_login);
}

TEST_F(GuestEventsTest, ProtocolAndAddressNumbers) {
  StartWithDesktop();
  struct Case {
    uint32_t protocol;
    const char* ip;
    uint32_t expected;
  };
  for (const Case& c : {Case{0, "10.0.0.1", 6}, Case{1, "10.0.0.1", 17}, Case{2, "10.0.0.1", 1},
                        Case{2, "fe80::1", 58}, Case{0, "fe80::1", 6}}) {
    auto socket = Tcp();
    socket.protocol = c.protocol;
    socket.source_ip = c.ip;
    Connect("d1", socket);
    EXPECT_EQ(idfw->connections.back().protocol, c.expected);
    EXPECT_EQ(idfw->connections.back().src_ip, c.ip);
    EXPECT_EQ(idfw->connections.back().ip_version,
              std::string(c.ip).find(':') == std::string::npos ? 0u : 1u);
  }
  world.SetFault({.operation = Operation::kNetworkEvent, .garbage = Garbage::kAddressType});
  Connect("d1");
  EXPECT_EQ(idfw->connections.back().ip_version, 65535u);
  EXPECT_EQ(idfw->connections.back().src_ip, "Invalid ip type 7");
  EXPECT_TRUE(log.Contains("EndvatUtil: IP address not currently available, 7"));
}

// Which lost answer costs the event, and which only a field of it.
TEST_F(GuestEventsTest, LostAnswers) {
  StartWithDesktop();
  Logon("d1");
  struct Case {
    Fault fault;
    bool event_lost;
    const char* line;
  };
  const Case cases[] = {
      {{.operation = Operation::kNetworkEvent, .status = ENDVAT_ERROR_TIMEOUT},
       true,
       "Context: Ignoring network event info failure ENDVAT_ERROR_TIMEOUT"},
      {{.operation = Operation::kNetworkEvent, .garbage = Garbage::kZero},
       true,
       "GetNetworkEventInfo failed. Error: 0 (ENDVAT_SUCCESS)"},
      {{.operation = Operation::kNetworkEvent, .garbage = Garbage::kGrow},
       true,
       "EndvatUtil: Failed to fetch networkInfo for VM, error ENDVAT_ERROR_BUFFER_TOO_SMALL"},
      {{.operation = Operation::kNetworkEventInformation, .status = ENDVAT_ERROR_PROCESS_IS_TERMINATING},
       true,
       "GetNetworkEventProcessInfo failed. Error: 31"},
      {{.operation = Operation::kProcessInfo, .call = 1, .status = ENDVAT_ERROR_NOT_FOUND},
       false,
       "Context: Error in fetching group sids, err: ENDVAT_ERROR_NOT_FOUND"},
      {{.operation = Operation::kProcessInfo, .call = 2, .status = ENDVAT_ERROR_NOT_FOUND},
       false,
       "Context: Ignoring process group info failure ENDVAT_ERROR_NOT_FOUND"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    idfw->connections.clear();
    firewall.connections.clear();
    log.Clear();
    world.SetFault(c.fault);
    Connect("d1");
    world.ClearFaults();
    EXPECT_EQ(idfw->connections.empty(), c.event_lost);
    EXPECT_EQ(firewall.connections.empty(), c.event_lost);
    EXPECT_TRUE(log.Contains(c.line));
    EXPECT_EQ(log.Contains("cannot send network event to clients"), c.event_lost);
  }
  EXPECT_EQ(world.guest("d1").counts.refused, 0u);
}

// A name that the library does not give must not be remembered as an empty one.
TEST_F(GuestEventsTest, UserWithoutAnAnswerIsAskedForAgain) {
  StartWithDesktop();
  world.SetFault({.operation = Operation::kSidInfo, .garbage = Garbage::kZero});
  Connect("d1");
  world.ClearFaults();
  Connect("d1");
  ASSERT_EQ(idfw->connections.size(), 2u);
  EXPECT_FALSE(idfw->connections[0].missed_login);
  EXPECT_TRUE(idfw->connections[1].missed_login);
  EXPECT_EQ(idfw->connections[1].username, "alice");
}

// A guest can write what it likes into its answers: nothing outside the buffer may be read.
TEST_F(GuestEventsTest, GarbageInEveryAnswer) {
  StartWithDesktop();
  for (const Garbage garbage :
       {Garbage::kShort, Garbage::kNullPointer, Garbage::kWildPointer, Garbage::kHugeLength, Garbage::kCount,
        Garbage::kNoTerminator, Garbage::kAddressType, Garbage::kGrow, Garbage::kZero}) {
    world.ClearFaults();
    for (const Operation operation :
         {Operation::kVmId, Operation::kLogonSessions, Operation::kSystemInfo, Operation::kSessionInfo,
          Operation::kProcessInfo, Operation::kNetworkEvent, Operation::kNetworkEventInformation,
          Operation::kSystemEventInformation, Operation::kSidInfo}) {
      world.SetFault({.operation = operation, .garbage = garbage});
    }
    const uint32_t session = Logon("d1");
    Connect("d1");
    Connect("d1", Tcp(200));
    Logoff("d1", session);
    Tick();
    world.Reannounce();
    clock.Settle();
  }
  world.ClearFaults();
  world.PowerOff("d1");
  world.PowerOn("d1");
  clock.Settle();
  Tick();
  world.StartProcess("d1", Process(100, "alice"));
  idfw->connections.clear();
  Connect("d1");
  ASSERT_EQ(idfw->connections.size(), 1u);
  EXPECT_EQ(idfw->connections[0].sid, kAlice);
  EXPECT_THAT(world.violations(), IsEmpty());
}

// A firewall that has forgotten a user gets the groups, and the same call once more, not for ever.
TEST_F(GuestEventsTest, ForgottenUserIsProgrammedAgainOnce) {
  StartWithDesktop();
  Logon("d1");
  firewall.groups.clear();
  firewall.calls.clear();
  Connect("d1");
  const std::string user = kAlice;
  EXPECT_THAT(firewall.calls, ElementsAre("user " + user, "groups " + user, "user " + user));
  firewall.always_wants_groups = true;
  firewall.calls.clear();
  Connect("d1");
  EXPECT_THAT(firewall.calls, ElementsAre("user " + user, "groups " + user, "user " + user));
}

// A user whose logon the firewall did not take is not in the caches, so the first connection brings the
// groups.
TEST_F(GuestEventsTest, LogonThatTheFirewallRefusesIsMadeUpForByTheFirstConnection) {
  StartWithDesktop();
  firewall.reachable = false;
  const uint32_t session = Logon("d1");
  EXPECT_TRUE(log.Contains("Failed to program user-group membership on Logon"));
  firewall.reachable = true;
  firewall.calls.clear();
  Connect("d1");
  EXPECT_TRUE(idfw->connections.back().missed_login);
  EXPECT_THAT(firewall.calls, ElementsAre(std::string("groups ") + kAlice, std::string("user ") + kAlice));
  Logoff("d1", session);
  EXPECT_TRUE(log.Contains("Session cache entry not found for removing due to missed logon"));
}

TEST_F(GuestEventsTest, SessionsOfEachKind) {
  StartWithDesktop();
  const uint32_t session = Logon("d1", 4);
  world.SetSession("d1", session, false);
  world.SetSession("d1", session, true);
  clock.Settle();
  Logoff("d1", session);
  std::vector<uint32_t> types;
  for (const UserSessionInfo& info : idfw->sessions) {
    types.push_back(info.session_type);
    EXPECT_EQ(info.sid, kAlice);
    EXPECT_EQ(info.user_name, "alice");
    EXPECT_EQ(info.session_id, 4);
  }
  EXPECT_THAT(types, ElementsAre(SESSION_TYPE_LOGON, SESSION_TYPE_DISCONNECT, SESSION_TYPE_CONNECT,
                                 SESSION_TYPE_LOGOFF));
  EXPECT_EQ(idfw->sessions[0].client_ip, "10.9.9.9");
  EXPECT_EQ(idfw->sessions[0].group_count, 2u);
  EXPECT_EQ(core.users().FindSession(SessionKey(kDesktopKey, 4)), nullptr);
  EXPECT_FALSE(core.users().HasDesktop(kDesktopKey));
}

// With every client disabled a logoff still has to clean up: the traffic after it is not that user's.
TEST_F(GuestEventsTest, LogoffWhileClientsAreDisabledCleansTheCaches) {
  StartWithDesktop();
  const uint32_t session = Logon("d1");
  ASSERT_TRUE(core.users().HasDesktop(kDesktopKey));
  core.guests().SetEventMask(kDesktopKey, kIdfwClient, 0);
  idfw->sessions.clear();
  Logoff("d1", session);
  EXPECT_FALSE(core.users().HasDesktop(kDesktopKey));
  EXPECT_THAT(idfw->sessions, IsEmpty());
  EXPECT_TRUE(log.Contains("Return from SendSystemEvent: clients disabled"));
}

// A desktop that ran before the engine: who is logged on is asked at the first tick, and again at 3, 6, 9
// while the guest is not ready, by one count for all guests.
TEST_F(GuestEventsTest, UsersOfRunningDesktopsAreFetched) {
  AddGuest("d1", System::kWindows, kDesktopUuid, [](auto& guest) { guest.ready_in = 5; });
  world.Logon("d1", {.id = 2, .user = "alice"});
  Start();
  for (int i = 0; i < 6; ++i) Tick();
  EXPECT_TRUE(log.Contains("Fetch user session at new tick: 3"));
  EXPECT_TRUE(log.Contains("Fetch user session at new tick: 6"));
  EXPECT_FALSE(log.Contains("Fetch user session at new tick: 9"));
  const auto desktop = core.users().FindDesktop(kDesktopKey);
  ASSERT_TRUE(desktop);
  EXPECT_EQ(desktop->sid, kAlice);
  EXPECT_EQ(desktop->session_id, 2u);
  EXPECT_NE(core.users().FindSession(SessionKey(kDesktopKey, 2)), nullptr);
}

}  // namespace
}  // namespace Ctxt::test
