#include "tests/app/ctxteng/engine/guest_life.h"

#include <set>

namespace Ctxt::test {
namespace {

using zem::sim::guest::Guest;
using zem::sim::guest::Process;
using zem::sim::guest::Session;
using zem::sim::guest::Socket;
using zem::sim::guest::System;
using zem::sim::guest::User;

constexpr System kSystems[] = {System::kWindows, System::kMultiSession, System::kLinux, System::kWindows};
constexpr int kGuests = std::size(kSystems);
constexpr uint64_t kProgram = 100;
constexpr uint64_t kService = 200;

Socket Tcp(uint64_t pid) {
  Socket socket;
  socket.pid = pid;
  socket.source_ip = "10.0.0.1";
  socket.source_port = 4000;
  socket.destination_ip = "10.0.0.2";
  socket.destination_port = 443;
  return socket;
}

GuestTable& Guests() { return CtxtCore::GetInstance().guests(); }
UserTables& Users() { return CtxtCore::GetInstance().users(); }

}  // namespace

GuestLife::Client GuestLife::ClientOf(RecordingClient& client) {
  return {.guests =
              [&client] {
                std::lock_guard lock(client.mutex);
                std::set<std::string> known;
                for (const auto& [key, vm] : client.guests) known.insert(key);
                return known;
              },
          .turn = [](bool on) { Guests().SetEventMaskForAllVms(kIdfwClient, on ? 0x48 : 0); },
          .wants = [](const Guest&) { return true; }};
}

void GuestLife::AddGuests() {
  for (int i = 0; i < kGuests; ++i) {
    Guest guest;
    guest.name = "g" + std::to_string(i);
    guest.system = kSystems[i];
    guest.vc_uuid = "502a1122-3344-5566-7788-99aabbccdd0" + std::to_string(i);
    world_.AddGuest(guest, "vc.uuid = \"" + guest.vc_uuid + "\"\n");
    User alice{.name = "alice", .domain = "corp", .groups = {"1000", "27"}};
    User service{.name = "SYSTEM", .domain = "NT", .groups = {"0"}};
    if (guest.windows()) {
      alice.sid = kAlice;
      service.sid = kSystemAccount;
    } else {
      alice.uid = 1000;
    }
    world_.SetUser(guest.name, "alice", alice);
    world_.SetUser(guest.name, "SYSTEM", service);
    PowerOn(guest.name);
  }
}

void GuestLife::PowerOn(const std::string& name) {
  world_.PowerOn(name);
  Process program{.pid = kProgram, .ctime = 7, .user = "alice", .name = "a.exe", .command_line = "a.exe -x"};
  program.hash = std::string(32, '\x5a');
  Process service = program;
  service.pid = kService;
  service.user = "SYSTEM";
  world_.StartProcess(name, program);
  world_.StartProcess(name, service);
}

void GuestLife::Step(const Number& number) {
  const std::string name = "g" + std::to_string(number(kGuests));
  const Guest guest = world_.guest(name);
  switch (number(14)) {
    case 0:
      return guest.on ? world_.PowerOff(name) : PowerOn(name);
    case 1:
    case 2:
    case 3:
      if (guest.on) world_.Logon(name, {.user = "alice"});
      return;
    case 4:
    case 5:
      if (!guest.sessions.empty()) world_.Logoff(name, guest.sessions.begin()->first);
      return;
    case 6:
      if (!guest.sessions.empty()) {
        const Session& session = guest.sessions.begin()->second;
        world_.SetSession(name, session.id, !session.active);
      }
      return;
    case 7:
      return world_.Tick({});
    case 8:
      return world_.Reannounce();
    case 9: {
      std::lock_guard lock(firewall_.mutex);
      firewall_.reachable = !firewall_.reachable;
      return;
    }
    case 10: {
      std::lock_guard lock(firewall_.mutex);
      firewall_.groups.clear();
      return;
    }
    case 11:
      return client_.turn(number(2) != 0);
    case 12:
      return Guests().SetProtocolMask(number(2) == 0 ? 0x600 : 0xE00);
    default:
      if (guest.on) world_.Close(name, world_.Connect(name, Tcp(number(2) == 0 ? kProgram : kService)));
      return;
  }
}

void GuestLife::Calm() {
  {
    std::lock_guard lock(firewall_.mutex);
    firewall_.reachable = true;
  }
  client_.turn(true);
  Guests().SetProtocolMask(0xE00);
  world_.Tick({});
}

GuestLife::Lines GuestLife::Check(const std::function<void()>& settle) {
  Lines lines = world_.violations();
  settle();
  Calm();
  settle();
  std::set<std::string> on;
  for (const Guest& guest : world_.guests()) {
    CheckCounts(guest, &lines);
    CheckUsers(guest, &lines);
    if ((Guests().Find(guest.vc_uuid) != nullptr) != guest.on)
      lines.push_back(guest.name + " is on in one place and off in the other");
    if (!guest.on) continue;
    on.insert(guest.vc_uuid);
    if (guest.mask != 0xE48) lines.push_back(guest.name + " has the mask " + std::to_string(guest.mask));
    CheckConnection(guest, settle, &lines);
  }
  if (client_.guests() != on) lines.push_back("the client knows other guests than those that are on");
  if (Guests().All().size() != on.size()) lines.push_back("the table has guests that there are not");
  return lines;
}

void GuestLife::CheckCounts(const Guest& guest, Lines* lines) const {
  const Guest::Counts& counts = guest.counts;
  // What was on its way when the guest or the engine went has come to nobody.
  if (counts.offered < counts.delivered + counts.filtered + counts.dropped + guest.undelivered)
    lines->push_back(guest.name + " has more events than were offered");
  if (counts.refused != 0) lines->push_back(guest.name + " had events refused");
}

void GuestLife::CheckUsers(const Guest& guest, Lines* lines) const {
  constexpr uint32_t kMostSessions = 300;
  for (uint32_t session = 1; session < kMostSessions; ++session) {
    if (guest.sessions.count(session) == 0 &&
        Users().FindSession(SessionKey(guest.vc_uuid, session)) != nullptr) {
      lines->push_back(guest.name + " keeps the session " + std::to_string(session));
    }
  }
  if (guest.sessions.empty() && Users().HasDesktop(guest.vc_uuid))
    lines->push_back(guest.name + " keeps the user of its desktop");
}

// Whatever was lost before, the user's next connection is programmed under that user's key.
void GuestLife::CheckConnection(const Guest& guest, const std::function<void()>& settle, Lines* lines) {
  size_t before;
  {
    std::lock_guard lock(firewall_.mutex);
    before = firewall_.connections.size();
  }
  world_.Close(guest.name, world_.Connect(guest.name, Tcp(kProgram)));
  settle();
  std::lock_guard lock(firewall_.mutex);
  if (!client_.wants(guest)) {
    if (firewall_.connections.size() != before)
      lines->push_back(guest.name + " had a connection that the firewall should not know");
    return;
  }
  if (firewall_.connections.size() != before + 1)
    return lines->push_back(guest.name + " had a connection that the firewall does not know");
  const DfwUserProcessInfo& info = firewall_.connections.back();
  const std::string key = guest.windows() ? std::string(kAlice) : "L-" + guest.vc_uuid + ":1000";
  if (info.nc_vc_uuid != guest.vc_uuid || info.user_dfw_key != key)
    lines->push_back(guest.name + " had a connection for " + info.user_dfw_key);
  // A logon that was over before its groups could be asked for leaves a user without any, as often as that
  // was.
  const bool none_known =
      firewall_.groups[key].empty() && firewall_.told_no_groups <= world_.refused_groups();
  if (guest.windows() && !none_known && firewall_.groups[key] != guest.users.at("alice").groups)
    lines->push_back(guest.name + " has a user with other groups at the firewall");
  if (firewall_.connections.size() > 1000) firewall_.connections.clear();
}

}  // namespace Ctxt::test
