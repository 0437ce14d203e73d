#include "sim/host/host_commands.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <optional>

#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/number.h"
#include "sim/host/host_state.h"
#include "sim/host/named_processes.h"

namespace zem::sim {
namespace {

constexpr const char* kProcessName = "zemaLum_py";

// The faults of the script: the name in commands, and the name in the script's faults file.
struct Fault {
  const char* name;
  const char* action;
  /// Used when the command gives no value; null when the fault needs one.
  const char* value;
};
constexpr Fault kFaults[] = {
    {"fail", "reply", "the host refuses"},
    {"status", "status", "0"},
    {"late", "delay", nullptr},
    {"garbage", "reply", "\x01|~,;ok||~~|=garbage"},
    {"empty", "reply", ""},
    {"close", "close", ""},
    {"half-header", "half-header", ""},
    {"half-text", "half-text", ""},
    {"too-long", "too-long", ""},
    {"exit", "exit", ""},
    {"die", "die", ""},
    {"hang", "hang", ""},
};

// The pattern that matches a command by its name or by "op N".
std::string PatternOf(const std::string& what) {
  if (what.starts_with("op ")) return "^" + what + "$";
  return "^" + what + "(\\(|=|$)";
}

void AddFault(const HostState& state, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--skip", "--count"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  if (options.positional().size() < 2) return reply.Fail("a fault and a command are needed");
  const std::string& name = options.positional()[0];
  const auto fault = std::find_if(std::begin(kFaults), std::end(kFaults),
                                  [&](const Fault& candidate) { return name == candidate.name; });
  if (fault == std::end(kFaults)) return reply.Fail("no fault \"" + name + "\"");
  const bool has_value = options.positional().size() > 2;
  if (!has_value && fault->value == nullptr) return reply.Fail(name + " needs a value");
  const auto skip = NumberOf<unsigned>(options.Value("--skip").value_or("0"));
  const auto count = NumberOf<unsigned>(options.Value("--count").value_or("1"));
  if (!skip || !count || *count == 0) return reply.Fail("--skip and --count take numbers");
  const std::string value = has_value ? options.Rest(2) : fault->value;
  if (value.find_first_of("\t\n") != std::string::npos)
    return reply.Fail("a value has no tab and no newline");
  state.AddFault(PatternOf(options.positional()[1]) + "\t" + std::to_string(*skip) + "\t" +
                 std::to_string(*count) + "\t" + fault->action + "\t" + value);
  reply.Ok();
}

void ShowNetworks(const HostState& state, const Arguments& arguments, const Reply& reply) {
  Json networks = state.Networks();
  if (arguments.empty()) return reply.Ok(std::move(networks));
  if (arguments[0] == "count") {
    Json result = JsonObject();
    AddMember(result.get(), "networks", cJSON_GetArraySize(networks.get()));
    return reply.Ok(std::move(result));
  }
  Json network(cJSON_DetachItemFromObjectCaseSensitive(networks.get(), arguments[0].c_str()));
  if (!network) return reply.Fail("no opaque network " + arguments[0]);
  reply.Ok(std::move(network));
}

void Show(const HostState& state, const Arguments& arguments, const Reply& reply) {
  Json at = state.Read();
  for (const std::string& name : arguments) {
    Json member(cJSON_DetachItemFromObjectCaseSensitive(at.get(), name.c_str()));
    if (!member) return reply.Fail("the host has no \"" + name + "\"");
    at = std::move(member);
  }
  reply.Ok(std::move(at));
}

void ShowFrames(const HostState& state, const Arguments& arguments, const Reply& reply) {
  const auto count = NumberOf<unsigned>(arguments.empty() ? "20" : arguments[0]);
  if (!count) return reply.Fail("how many?");
  reply.Ok(state.Frames(static_cast<size_t>(*count), arguments.size() > 1 ? arguments[1] : std::string()));
}

void ShowRuns(const char* name, Json (HostState::*read)(size_t) const, const HostState& state,
              const Arguments& arguments, const Reply& reply) {
  const auto count = NumberOf<unsigned>(arguments.empty() ? "20" : arguments[0]);
  if (!count) return reply.Fail("how many?");
  Json runs = (state.*read)(static_cast<size_t>(*count));
  Json result = JsonObject();
  AddMember(result.get(), "count", cJSON_GetArraySize(runs.get()));
  AddMember(result.get(), name, std::move(runs));
  reply.Ok(std::move(result));
}

void SetReload(const HostState& state, const Arguments& arguments, const Reply& reply) {
  const auto code = NumberOf<unsigned>(arguments[0]);
  if (!code || *code > 255) return reply.Fail("no exit code: " + arguments[0]);
  state.SetReload(*code, arguments.size() > 1 ? arguments[1] : "");
  reply.Ok();
}

void Kill(const Reply& reply) {
  const std::vector<pid_t> processes = ProcessesNamed(kProcessName);
  Json killed = JsonArray();
  for (const pid_t pid : processes) {
    if (::kill(pid, SIGKILL) != 0 && errno != ESRCH) return reply.Fail(std::strerror(errno));
    AddItem(killed.get(), std::to_string(pid));
  }
  if (processes.empty()) return reply.Fail("no management script runs");
  reply.Ok(std::move(killed));
}

void SetStart(const HostState& state, const Arguments& arguments, const Reply& reply) {
  const auto polls = NumberOf<unsigned>(arguments.size() > 1 ? arguments[1] : "0");
  if (arguments[0] != "Uninitialized" && arguments[0] != "ready" && arguments[0] != "never") {
    return reply.Fail("Uninitialized, ready or never");
  }
  if (!polls) return reply.Fail("how many polls?");
  state.SetStart(arguments[0], *polls);
  reply.Ok();
}

}  // namespace

void RegisterHostCommands(CommandTable& table, const HostState& state) {
  using A = const Arguments&;
  using R = const Reply&;
  table.Register(
      {"show", "[MEMBER...]",
       "Shows the host, or what it has under a name: pnics, interfaces, standardSwitches, vms, flags, "
       "guestLane.",
       0, 8, [&state](A a, R r) { Show(state, a, r); }});
  table.Register({"set", "PATH JSON", "Sets what stands at a path: flags.unusedCkln true, dhcp.polls 3.", 2,
                  2,
                  [&state](A a, R r) {
                    state.Set(a[0], a[1]);
                    r.Ok();
                  },
                  true});
  table.Register({"networks", "[UUID|count]", "Shows the opaque networks, one, or how many there are.", 0, 1,
                  [&state](A a, R r) { ShowNetworks(state, a, r); }});
  table.Register({"frames", "[COUNT [PART]]",
                  "Shows the last frames to the management script (20) that hold PART.", 0, 2,
                  [&state](A a, R r) { ShowFrames(state, a, r); }});
  table.Register({"frames/whole", "on|off",
                  "Whether further frames are kept whole, or their first 4096 bytes.", 1, 1,
                  [&state](A a, R r) {
                    if (a[0] != "on" && a[0] != "off") return r.Fail("on or off");
                    state.KeepFramesWhole(a[0] == "on");
                    r.Ok();
                  }});
  table.Register({"start", "Uninitialized|ready|never [POLLS]",
                  "How the next start of the script begins, and how many pings it then takes to be ready.", 1,
                  2, [&state](A a, R r) { SetStart(state, a, r); }});
  table.Register({"reloads", "[COUNT]",
                  "Shows the last calls (20) to read the controllers' file, each with the file as it was.", 0,
                  1, [&state](A a, R r) { ShowRuns("reloads", &HostState::Reloads, state, a, r); }});
  table.Register({"resync-runs", "[COUNT]",
                  "Shows the last runs (20) of the resync's script, with their arguments and what they said.",
                  0, 1, [&state](A a, R r) { ShowRuns("runs", &HostState::ResyncRuns, state, a, r); }});
  table.Register({"reload-result", "CODE [TEXT]", "How further reads of the controllers' file go.", 1, 2,
                  [&state](A a, R r) { SetReload(state, a, r); }, true});
  table.Register({"kill", "", "Kills the management script.", 0, 0, [](A, R r) { Kill(r); }});
  table.Register({"processes", "", "Shows the management script's processes.", 0, 0, [](A, R r) {
                    Json pids = JsonArray();
                    for (const pid_t pid : ProcessesNamed(kProcessName))
                      AddItem(pids.get(), std::to_string(pid));
                    r.Ok(std::move(pids));
                  }});
  table.Register(
      {"fault/add", "FAULT COMMAND [VALUE] [--skip N] [--count N]",
       "Makes the script treat a command (\"applyVtep\", \"op 11\"; \"resync\" for the resync's) otherwise: "
       "fail TEXT, status N, late "
       "SECONDS, garbage, empty, close, half-header, half-text, too-long, exit (before it), die (after "
       "it), hang.",
       2, 64, [&state](A a, R r) { AddFault(state, a, r); }});
  table.Register({"fault/list", "", "Shows the faults to come.", 0, 0, [&state](A, R r) {
                    Json rows = JsonArray();
                    for (const std::string& row : state.Faults()) AddItem(rows.get(), row);
                    r.Ok(std::move(rows));
                  }});
  table.Register({"fault/clear", "", "Ends all faults.", 0, 0, [&state](A, R r) {
                    state.ClearFaults();
                    r.Ok();
                  }});
}

}  // namespace zem::sim
