#include "sim/guest/guest_commands.h"

#include <array>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <stdexcept>

#include "platform/hash/jhash.h"
#include "proto/context/mux_config.pb.h"
#include "sim/control/command_options.h"
#include "sim/control/number.h"
#include "sim/guest/mux_peer.h"
#include "sim/guest/world/guest_world.h"

namespace zem::sim::guest {
namespace {

[[noreturn]] void Refuse(const std::string& why) { throw std::invalid_argument(why); }

template <class T>
T NumberIn(const std::string& text, const char* what) {
  const auto number = NumberOf<T>(text);
  if (!number) Refuse(std::string(what) + " is no number: " + text);
  return *number;
}

std::string Need(const CommandOptions& options, const char* name) {
  const auto value = options.Value(name);
  if (!value) Refuse(std::string(name) + " is missing");
  return *value;
}

// Positional words and options of a command; throws what is wrong with them.
CommandOptions Parse(const Arguments& arguments, size_t positional,
                     std::initializer_list<const char*> with_value,
                     std::initializer_list<const char*> flags = {}) {
  CommandOptions options(arguments, with_value, flags);
  if (!options.error().empty()) Refuse(options.error());
  if (options.positional().size() != positional) Refuse(std::to_string(positional) + " words are needed");
  return options;
}

template <class Value>
struct Named {
  const char* name;
  Value value;
};

template <class Value, size_t N>
Value ByName(const std::array<Named<Value>, N>& table, const std::string& name) {
  std::string names;
  for (const auto& row : table) {
    if (name == row.name) return row.value;
    names += std::string(names.empty() ? "" : ", ") + row.name;
  }
  Refuse("\"" + name + "\" is none of " + names);
}

constexpr std::array kSystems = {
    Named<System>{"windows", System::kWindows}, Named<System>{"multi-session", System::kMultiSession},
    Named<System>{"linux", System::kLinux}, Named<System>{"other", System::kOther}};
constexpr std::array kProtocols = {Named<uint32_t>{"tcp", 0}, Named<uint32_t>{"udp", 1},
                                   Named<uint32_t>{"icmp", 2}, Named<uint32_t>{"other", 3}};
constexpr std::array kSessionKinds = {Named<SessionKind>{"logon", SessionKind::kLogon},
                                      Named<SessionKind>{"tty", SessionKind::kTerminal},
                                      Named<SessionKind>{"pts", SessionKind::kPseudoTerminal}};
constexpr std::array kGarbage = {
    Named<Garbage>{"short", Garbage::kShort},         Named<Garbage>{"nullptr", Garbage::kNullPointer},
    Named<Garbage>{"wildptr", Garbage::kWildPointer}, Named<Garbage>{"hugelen", Garbage::kHugeLength},
    Named<Garbage>{"zero", Garbage::kZero},           Named<Garbage>{"grow", Garbage::kGrow},
    Named<Garbage>{"iptype7", Garbage::kAddressType}, Named<Garbage>{"count", Garbage::kCount},
    Named<Garbage>{"noterm", Garbage::kNoTerminator}};

// The configuration file of a guest: the identity in byte pairs, as the host writes it.
std::string ConfigText(const std::string& vc_uuid, const std::string& form) {
  const std::string line = vc_uuid.empty() ? "" : "vc.uuid = \"" + vc_uuid + "\"\n";
  if (form == "usual") return "displayName = \"guest\"\n" + line + "memSize = \"4096\"\n";
  if (form == "crlf") return "displayName = \"guest\"\r\nvc.uuid = \"" + vc_uuid + "\"\r\n";
  if (form == "capitals") return "VC.UUID = \"" + vc_uuid + "\"\n";
  if (form == "malformed") return "a=b=c\nnothing\n" + line;
  if (form == "none") return "displayName = \"guest\"\n";
  Refuse("\"" + form + "\" is none of usual, crlf, capitals, malformed, none");
}

void AddGuest(GuestWorld& world, const Arguments& arguments) {
  const auto options =
      Parse(arguments, 1, {"--os", "--uuid", "--config", "--not-ready"}, {"--old-agent", "--off"});
  Guest guest;
  guest.name = options.positional()[0];
  guest.system = ByName(kSystems, options.Value("--os").value_or("windows"));
  guest.vc_uuid = options.Value("--uuid").value_or("");
  guest.old_agent = options.Has("--old-agent");
  if (const auto ticks = options.Value("--not-ready"))
    guest.ready_in = NumberIn<uint32_t>(*ticks, "--not-ready");
  const std::string config = ConfigText(guest.vc_uuid, options.Value("--config").value_or("usual"));
  world.AddGuest(guest, config);
  if (!options.Has("--off")) world.PowerOn(guest.name);
}

void SetUser(GuestWorld& world, const Arguments& arguments) {
  const auto options = Parse(arguments, 2, {"--id", "--domain", "--groups"});
  User user;
  user.name = options.positional()[1];
  user.domain = options.Value("--domain").value_or("");
  const std::string id = Need(options, "--id");
  if (const auto uid = NumberOf<uint32_t>(id)) {
    user.uid = *uid;
  } else {
    user.sid = id;
  }
  if (const auto groups = options.Value("--groups"))
    boost::split(user.groups, *groups, boost::is_any_of(","));
  world.SetUser(options.positional()[0], user.name, user);
}

uint32_t Logon(GuestWorld& world, const Arguments& arguments) {
  const auto options = Parse(arguments, 2, {"--session", "--ip", "--kind"}, {"--inactive"});
  Session session;
  session.user = options.positional()[1];
  session.client_ip = options.Value("--ip").value_or("");
  session.active = !options.Has("--inactive");
  session.kind = ByName(kSessionKinds, options.Value("--kind").value_or("logon"));
  if (const auto id = options.Value("--session")) session.id = NumberIn<uint32_t>(*id, "--session");
  return world.Logon(options.positional()[0], session);
}

void StartProcess(GuestWorld& world, const Arguments& arguments) {
  const auto options = Parse(arguments, 2, {"--user", "--exe", "--command"});
  Process process;
  process.pid = NumberIn<uint64_t>(options.positional()[1], "the process id");
  process.user = Need(options, "--user");
  process.name = options.Value("--exe").value_or("");
  process.command_line = options.Value("--command").value_or("");
  process.ctime = jhash64(options.positional()[0] + options.positional()[1]);
  // The file's hash follows from its name: the same program has the same hash in every guest.
  for (uint64_t part = 0; part < 4; ++part) {
    Buffer word(8);
    word.Put<uint64_t>(0, jhash64(process.name, part));
    process.hash += word.bytes;
  }
  world.StartProcess(options.positional()[0], process);
}

void SplitEndpoint(const std::string& text, std::string* ip, uint16_t* port) {
  const size_t colon = text.rfind('@');
  *ip = text.substr(0, colon);
  if (colon != std::string::npos) *port = NumberIn<uint16_t>(text.substr(colon + 1), "the port");
}

Socket SocketOf(const CommandOptions& options) {
  Socket socket;
  socket.pid = NumberIn<uint64_t>(Need(options, "--pid"), "--pid");
  socket.protocol = ByName(kProtocols, options.Value("--proto").value_or("tcp"));
  SplitEndpoint(Need(options, "--from"), &socket.source_ip, &socket.source_port);
  SplitEndpoint(options.Value("--to").value_or("0.0.0.0"), &socket.destination_ip, &socket.destination_port);
  return socket;
}

Json GuestJson(const Guest& guest) {
  Json json = JsonObject();
  AddMember(json.get(), "name", guest.name);
  for (const auto& row : kSystems) {
    if (row.value == guest.system) AddMember(json.get(), "os", row.name);
  }
  AddMember(json.get(), "on", guest.on);
  AddMember(json.get(), "uuid", guest.vc_uuid);
  AddMember(json.get(), "mask", guest.mask);
  AddMember(json.get(), "data", guest.data_set());
  Json sessions = JsonArray();
  for (const auto& [id, session] : guest.sessions) {
    Json item = JsonObject();
    AddMember(item.get(), "id", id);
    AddMember(item.get(), "user", session.user);
    AddMember(item.get(), "active", session.active);
    AddItem(sessions.get(), std::move(item));
  }
  AddMember(json.get(), "sessions", std::move(sessions));
  AddMember(json.get(), "sockets", static_cast<uint64_t>(guest.sockets.size()));
  AddMember(json.get(), "undelivered", guest.undelivered);
  AddMember(json.get(), "offered", guest.counts.offered);
  AddMember(json.get(), "delivered", guest.counts.delivered);
  AddMember(json.get(), "filtered", guest.counts.filtered);
  AddMember(json.get(), "dropped", guest.counts.dropped);
  AddMember(json.get(), "refused", guest.counts.refused);
  return json;
}

Json SocketJson(uint64_t id) {
  Json json = JsonObject();
  AddMember(json.get(), "socket", id);
  return json;
}

void SetFault(GuestWorld& world, const Arguments& arguments) {
  const auto options =
      Parse(arguments, 1, {"--guest", "--call", "--skip", "--times", "--status", "--delay", "--garbage"});
  Fault fault;
  bool found = false;
  for (uint32_t i = 0; i < kOperations; ++i) {
    if (options.positional()[0] != OperationName(static_cast<Operation>(i))) continue;
    fault.operation = static_cast<Operation>(i);
    found = true;
  }
  if (!found) Refuse("no such call: " + options.positional()[0]);
  fault.guest = options.Value("--guest").value_or("");
  const auto number = [&](const char* name, uint32_t* field) {
    if (const auto value = options.Value(name)) *field = NumberIn<uint32_t>(*value, name);
  };
  number("--call", &fault.call);
  number("--skip", &fault.skip);
  number("--times", &fault.times);
  number("--status", &fault.status);
  number("--delay", &fault.delay_ms);
  if (const auto garbage = options.Value("--garbage")) fault.garbage = ByName(kGarbage, *garbage);
  world.SetFault(fault);
}

void Storm(GuestWorld& world, const Arguments& arguments) {
  const auto options = Parse(arguments, 1, {"--pid", "--from", "--to", "--proto", "--count"});
  const std::string& guest = options.positional()[0];
  const auto count = NumberIn<uint32_t>(Need(options, "--count"), "--count");
  for (uint32_t i = 0; i < count; ++i) {
    Socket socket = SocketOf(options);
    socket.source_port = static_cast<uint16_t>(1024 + i % 60000);
    world.Close(guest, world.Connect(guest, socket));
  }
}

void Add(CommandTable& table, const char* name, const char* usage, const char* help, size_t least,
         size_t most, std::function<Json(const Arguments&)> run) {
  table.Register({name, usage, help, least, most, [run](const Arguments& arguments, Reply reply) {
                    Json result = run(arguments);
                    if (result != nullptr) {
                      reply.Ok(std::move(result));
                    } else {
                      reply.Ok();
                    }
                  }});
}

}  // namespace

void RegisterGuestCommands(CommandTable& table, GuestWorld& world) {
  GuestWorld* const w = &world;
  constexpr size_t kMost = 20;
  Add(table, "add",
      "NAME [--os windows|multi-session|linux|other] [--uuid TEXT] [--config FORM] [--old-agent] "
      "[--not-ready TICKS] [--off]",
      "Makes a guest and powers it on.", 1, kMost, [w](const Arguments& a) {
        AddGuest(*w, a);
        return Json();
      });
  Add(table, "on", "NAME", "Powers the guest on.", 1, 1, [w](const Arguments& a) {
    w->PowerOn(a[0]);
    return Json();
  });
  Add(table, "off", "NAME", "Powers the guest off.", 1, 1, [w](const Arguments& a) {
    w->PowerOff(a[0]);
    return Json();
  });
  Add(table, "remove", "NAME", "Powers the guest off and forgets it.", 1, 1, [w](const Arguments& a) {
    w->RemoveGuest(a[0]);
    return Json();
  });
  Add(table, "user", "NAME USER --id SID|UID [--domain TEXT] [--groups ID,ID]", "Makes a user of the guest.",
      2, kMost, [w](const Arguments& a) {
        SetUser(*w, a);
        return Json();
      });
  Add(table, "logon", "NAME USER [--session ID] [--ip ADDRESS] [--kind logon|tty|pts] [--inactive]",
      "Opens a session of the user.", 2, kMost, [w](const Arguments& a) {
        Json json = JsonObject();
        AddMember(json.get(), "session", Logon(*w, a));
        return json;
      });
  Add(table, "logoff", "NAME SESSION", "Ends a session.", 2, 2, [w](const Arguments& a) {
    w->Logoff(a[0], NumberIn<uint32_t>(a[1], "the session"));
    return Json();
  });
  Add(table, "session", "NAME SESSION connect|disconnect", "Connects a session, or leaves it.", 3, 3,
      [w](const Arguments& a) {
        constexpr std::array kStates = {Named<bool>{"connect", true}, Named<bool>{"disconnect", false}};
        w->SetSession(a[0], NumberIn<uint32_t>(a[1], "the session"), ByName(kStates, a[2]));
        return Json();
      });
  Add(table, "proc", "NAME PID --user USER [--exe PATH] [--command LINE]", "Starts a process.", 2, kMost,
      [w](const Arguments& a) {
        StartProcess(*w, a);
        return Json();
      });
  Add(table, "end", "NAME PID", "Ends a process.", 2, 2, [w](const Arguments& a) {
    w->EndProcess(a[0], NumberIn<uint64_t>(a[1], "the process id"));
    return Json();
  });
  Add(table, "connect", "NAME --pid PID --from IP[@PORT] --to IP[@PORT] [--proto tcp|udp|icmp|other]",
      "Opens a connection.", 1, kMost, [w](const Arguments& a) {
        const auto options = Parse(a, 1, {"--pid", "--from", "--to", "--proto"});
        return SocketJson(w->Connect(options.positional()[0], SocketOf(options)));
      });
  Add(table, "listen", "NAME --pid PID --from IP@PORT [--proto tcp|udp]", "Listens.", 1, kMost,
      [w](const Arguments& a) {
        const auto options = Parse(a, 1, {"--pid", "--from", "--to", "--proto"});
        return SocketJson(w->Listen(options.positional()[0], SocketOf(options)));
      });
  Add(table, "close", "NAME SOCKET", "Closes a connection.", 2, 2, [w](const Arguments& a) {
    w->Close(a[0], NumberIn<uint64_t>(a[1], "the socket"));
    return Json();
  });
  Add(table, "unlisten", "NAME SOCKET", "Ends a listen.", 2, 2, [w](const Arguments& a) {
    w->Unlisten(a[0], NumberIn<uint64_t>(a[1], "the socket"), 4);
    return Json();
  });
  Add(table, "tick", "[NAME]", "Beats the timer of the guest, or of all.", 0, 1, [w](const Arguments& a) {
    w->Tick(a.empty() ? std::string() : a[0]);
    return Json();
  });
  Add(table, "storm", "NAME --pid PID --from IP --to IP@PORT --count N", "Opens and closes N connections.", 1,
      kMost, [w](const Arguments& a) {
        Storm(*w, a);
        return GuestJson(w->guest(a[0]));
      });
  Add(table, "fault",
      "CALL [--guest NAME] [--call 1|2] [--skip N] [--times N] [--status N] [--delay MS] [--garbage KIND]",
      "Spoils the answers to a call of the library.", 1, kMost, [w](const Arguments& a) {
        SetFault(*w, a);
        return Json();
      });
  Add(table, "mend", "", "Ends all faults.", 0, 0, [w](const Arguments&) {
    w->ClearFaults();
    return Json();
  });
  Add(table, "show", "[NAME]", "The guest's state, or that of all.", 0, 1, [w](const Arguments& a) {
    if (!a.empty()) return GuestJson(w->guest(a[0]));
    Json json = JsonArray();
    for (const Guest& guest : w->guests()) AddItem(json.get(), GuestJson(guest));
    return json;
  });
  Add(table, "queries", "", "How often each call of the library was made.", 0, 0, [w](const Arguments&) {
    Json json = JsonObject();
    for (const auto& [name, count] : w->questions()) AddMember(json.get(), name.c_str(), count);
    return json;
  });
  Add(table, "violations", "", "What the daemon did against the library's rules.", 0, 0,
      [w](const Arguments&) {
        Json json = JsonArray();
        for (const std::string& text : w->violations()) AddItem(json.get(), text);
        return json;
      });
}

void RegisterMuxCommands(CommandTable& table, GuestWorld& world, MuxPeer& peer) {
  GuestWorld* const w = &world;
  MuxPeer* const p = &peer;
  Add(table, "stop", "", "The multiplexer goes away; the guests run on.", 0, 0, [p](const Arguments&) {
    p->Die();
    return Json();
  });
  Add(table, "start", "", "The multiplexer comes back.", 0, 0, [p](const Arguments&) {
    if (!p->Return()) Refuse("it serves already");
    return Json();
  });
  Add(table, "freeze", "", "Answers nothing from now on.", 0, 0, [p](const Arguments&) {
    p->SetFrozen(true);
    return Json();
  });
  Add(table, "thaw", "", "Answers again.", 0, 0, [p](const Arguments&) {
    p->SetFrozen(false);
    return Json();
  });
  Add(table, "tick", "MS", "The time between two beats of the guests' timers.", 1, 1,
      [p](const Arguments& a) {
        p->SetTick(std::chrono::milliseconds(NumberIn<uint32_t>(a[0], "the time")));
        return Json();
      });
  Add(table, "reannounce", "", "Announces every running guest again.", 0, 0, [w](const Arguments&) {
    w->Reannounce();
    return Json();
  });
  Add(table, "svm", "ID up|down", "A service VM comes or goes.", 2, 2, [w](const Arguments& a) {
    constexpr std::array kStates = {Named<bool>{"up", true}, Named<bool>{"down", false}};
    w->ServiceVm(a[0], ByName(kStates, a[1]));
    return Json();
  });
  table.Register({.name = "health",
                  .usage = "XML",
                  .help = "Reports this health document.",
                  .min_arguments = 1,
                  .max_arguments = 1,
                  .handler =
                      [w](const Arguments& a, const Reply& reply) {
                        w->ReportHealth(a[0]);
                        reply.Ok();
                      },
                  .rest_of_line = true});
  Add(table, "raise", "error|panic|mux NUMBER", "Calls the daemon's error, panic or multiplexer handler.", 2,
      2, [w](const Arguments& a) {
        constexpr std::array kKinds = {Named<Event::Kind>{"error", Event::Kind::kError},
                                       Named<Event::Kind>{"panic", Event::Kind::kPanic},
                                       Named<Event::Kind>{"mux", Event::Kind::kMux}};
        w->Raise(ByName(kKinds, a[0]), NumberIn<uint32_t>(a[1], "the number"));
        return Json();
      });
  Add(table, "show", "", "The multiplexer's state and configurations.", 0, 0, [w, p](const Arguments&) {
    const GuestWorld::Mux mux = w->mux();
    Json json = JsonObject();
    AddMember(json.get(), "serving", p->serving());
    AddMember(json.get(), "attached", mux.attached);
    Json configurations = JsonArray();
    for (const std::string& bytes : mux.configurations) {
      orlane::zem::ouvi::MuxConfigMsg message;
      AddItem(configurations.get(),
              message.ParseFromString(bytes) ? message.ShortDebugString() : "not a configuration");
    }
    AddMember(json.get(), "configurations", std::move(configurations));
    Json service_vms = JsonObject();
    for (const auto& [id, up] : mux.service_vms) AddMember(service_vms.get(), id.c_str(), up);
    AddMember(json.get(), "serviceVms", std::move(service_vms));
    return json;
  });
}

}  // namespace zem::sim::guest
