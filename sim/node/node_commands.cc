// The node's own commands: the daemon, its log, its health, its files, its command socket, and the commands
// that lead to the peers.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <sstream>

#include "framework/process/child_process.h"
#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"
#include "platform/provider/timer.h"
#include "proto/switching/switching.pb.h"
#include "sim/control/command_options.h"
#include "sim/control/hex.h"
#include "sim/control/number.h"
#include "sim/host/corvd_commands.h"
#include "sim/host/edge_commands.h"
#include "sim/host/raw_sockets.h"
#include "sim/node/node.h"
#include "sim/sandbox/sandbox.h"
#include "sim/sandbox/small_disk.h"
#include "sim/scenario/patience.h"
#include "sim/sinks/health_caller.h"
#include "sim/sinks/log_commands.h"
#include "sim/truth/host_diff.h"
#include "sim/truth/node_picture.h"

namespace zem::sim {
namespace {

constexpr const char* kCliSocket = "/run/orlane/zem-tarvik/tarvik-cli";
constexpr const char* kCliClient = "/usr/bin/ovs-appctl";
constexpr auto kFarewell = std::chrono::milliseconds(100);
constexpr double kCliPatience = 20;
constexpr size_t kMaxFile = size_t{1024} * 1024;

std::optional<double> Seconds(const std::string& text) {
  const auto number = NumberOf<double>(text);
  return number && *number >= 0 ? number : std::nullopt;
}

Duration ToDuration(double seconds) { return Duration(static_cast<int64_t>(seconds * 1e9)); }

struct SignalName {
  const char* name;
  int number;
};
constexpr std::array kSignals = {SignalName{"TERM", SIGTERM}, SignalName{"INT", SIGINT},
                                 SignalName{"KILL", SIGKILL}, SignalName{"STOP", SIGSTOP},
                                 SignalName{"CONT", SIGCONT}, SignalName{"ABRT", SIGABRT}};

std::optional<int> ParseSignal(const std::string& word) {
  for (const SignalName& signal : kSignals) {
    if (word == signal.name) return signal.number;
  }
  return std::nullopt;
}

// Waits on a thread of its own, so that the control thread stays free for other commands of the scenario.
void InBackground(std::function<void()> work) {
  NativeThread::Options options;
  options.detached = true;
  const NativeThread started(std::move(options), std::move(work));
}

Json HealthJson(const HealthSink::Health& health) {
  Json result = JsonObject();
  AddMember(result.get(), "known", health.known);
  AddMember(result.get(), "stale", health.stale);
  AddMember(result.get(), "agent", health.agent);
  AddMember(result.get(), "pid", health.pid);
  AddMember(result.get(), "heartbeats", health.heartbeats);
  AddMember(result.get(), "metrics", health.metrics);
  AddMember(result.get(), "missed", health.missed);
  AddMember(result.get(), "unparsable", health.unparsable);
  AddMember(result.get(), "proxy_connection", health.proxy_status);
  return result;
}

Json DaemonJson(const DaemonProcess& daemon) {
  Json result = JsonObject();
  const pid_t pid = daemon.pid();
  AddMember(result.get(), "running", pid != 0);
  AddMember(result.get(), "pid", static_cast<int64_t>(pid));
  AddMember(result.get(), "starts", daemon.starts());
  if (pid == 0) return result;
  const std::string proc = "/proc/" + std::to_string(pid);
  std::ifstream comm(proc + "/comm");
  std::string name;
  std::getline(comm, name);
  AddMember(result.get(), "comm", name);
  std::ifstream status(proc + "/status");
  for (std::string line; std::getline(status, line);) {
    std::istringstream words(line);
    std::string key;
    words >> key;
    if (key == "State:") {
      words >> key;
      AddMember(result.get(), "state", key);
    }
    int64_t value = 0;
    words >> value;
    if (key == "VmRSS:") AddMember(result.get(), "resident_kib", value);
    if (key == "Threads:") AddMember(result.get(), "threads", value);
  }
  // Behind the name in parentheses: the state, ten numbers, then user and system time.
  std::ifstream stat(proc + "/stat");
  stat.ignore(std::numeric_limits<std::streamsize>::max(), ')');
  std::string passed;
  for (int i = 0; i < 11; ++i) stat >> passed;
  int64_t user = 0;
  int64_t system = 0;
  stat >> user >> system;
  const auto ticks = static_cast<int64_t>(::sysconf(_SC_CLK_TCK));
  AddMember(result.get(), "processor_ms", (user + system) * 1000 / ticks);
  std::error_code error;
  const std::filesystem::directory_iterator descriptors(proc + "/fd", error);
  AddMember(result.get(), "descriptors",
            static_cast<int64_t>(std::distance(begin(descriptors), end(descriptors))));
  return result;
}

void WaitForEnd(DaemonProcess& daemon, const Arguments& arguments, const Reply& reply) {
  const double seconds = arguments.empty() ? 10 : Seconds(arguments[0]).value_or(10);
  InBackground([&daemon, seconds, reply] {
    const auto status = daemon.Wait(ToDuration(Patience(seconds)));
    if (!status) return reply.Fail("the daemon still runs");
    Json result = JsonObject();
    AddMember(result.get(), "ended_by", WaitStatusText(*status));
    reply.Ok(std::move(result));
  });
}

// The daemon starts a resync at once when the manager comes back; it notices that when the proxy restarts.
void ResyncNow(Manager& manager, const LogSink& log, const HostState& host, const Arguments& arguments,
               const Reply& reply) {
  const double seconds = arguments.size() > 1 ? Seconds(arguments[1]).value_or(60) : 60;
  if (arguments[0] != "now") return reply.Fail("now");
  InBackground([&manager, &log, &host, seconds, reply] {
    const uint64_t begin = log.last_number();
    if (manager.proxy_running()) manager.StopProxy();
    manager.StartProxy();
    const auto woken =
        log.Wait("Resync woken up before timeout by mpa reconnect", begin, ToDuration(seconds));
    if (!woken || !log.Wait("Resetting resyncInProgress 0 flag", woken->number, ToDuration(seconds))) {
      return reply.Fail("there was no resync");
    }
    reply.Ok(host.ResyncRuns(1));
  });
}

void ReadNodeFile(const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {}, {"--hex"});
  if (!options.error().empty()) return reply.Fail(options.error());
  if (options.positional().size() != 1) return reply.Fail("one path is needed");
  const std::string& path = options.positional()[0];
  std::ifstream in(path, std::ios::binary);
  if (!in) return reply.Fail(path + ": " + std::strerror(errno));
  std::string text(kMaxFile, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(in.gcount()));
  Json result = JsonObject();
  AddMember(result.get(), "size", static_cast<uint64_t>(text.size()));
  if (options.Has("--hex")) {
    AddMember(result.get(), "hex", ToHex(text));
  } else {
    AddMember(result.get(), "text", text);
  }
  reply.Ok(std::move(result));
}

void ListNodeFiles(const Arguments& arguments, const Reply& reply) {
  std::error_code error;
  Json names = JsonArray();
  for (const auto& entry : std::filesystem::directory_iterator(arguments[0], error)) {
    AddItem(names.get(), entry.path().filename().string());
  }
  if (error) return reply.Fail(arguments[0] + ": " + error.message());
  reply.Ok(std::move(names));
}

void WriteNodeFile(const Arguments& arguments, const Reply& reply) {
  // If a folder cannot be made, opening the file fails and reports the error.
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(arguments[0]).parent_path(), ignored);
  std::ofstream out(arguments[0], std::ios::binary | std::ios::trunc);
  for (size_t i = 1; i < arguments.size(); ++i) out << (i > 1 ? "\n" : "") << arguments[i];
  out.close();
  if (!out) return reply.Fail(arguments[0] + ": " + std::strerror(errno));
  reply.Ok();
}

// Commands on small disks: a file system of its own for a folder, small enough to be filled.
void SmallDisk(const Reply& reply, const std::function<Json()>& change) {
  try {
    reply.Ok(change());
  } catch (const std::runtime_error& error) {
    reply.Fail(error.what());
  }
}

// Runs a command on the daemon's command socket, with the client that operators use.
// Whatever its exit code, the program's end is the answer.
void Tarvikctl(const std::string& program, const Arguments& arguments, const Reply& reply) {
  InBackground([program, arguments, reply] {
    Tarvik::ChildProcess::Options options;
    options.argv = {program};
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.time_limit = ToDuration(Patience(kCliPatience));
    options.output_limit = kMaxFile;
    const TimePoint begun = Clock::Process().Now();
    const Tarvik::ChildResult ended = Tarvik::ChildProcess(std::move(options)).Run();
    if (ended.end != Tarvik::ChildEnd::kExited) return reply.Fail(program + " did not end by itself");
    Json result = JsonObject();
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::Process().Now() - begun);
    AddMember(result.get(), "code", ended.value);
    AddMember(result.get(), "ms", int64_t{took.count()});
    AddMember(result.get(), "text", ended.output);
    AddMember(result.get(), "errors", ended.errors);
    if (Json parsed{cJSON_Parse(ended.output.c_str())}; parsed)
      AddMember(result.get(), "json", std::move(parsed));
    reply.Ok(std::move(result));
  });
}

void Cli(const Arguments& arguments, const Reply& reply) {
  InBackground([arguments, reply] {
    Tarvik::ChildProcess::Options options;
    options.argv = {kCliClient, "-t", kCliSocket};
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.time_limit = ToDuration(Patience(kCliPatience));
    options.output_limit = kMaxFile;
    const Tarvik::ChildResult ended = Tarvik::ChildProcess(std::move(options)).Run();
    if (ended.end != Tarvik::ChildEnd::kExited || ended.value != 0) {
      return reply.Fail(ended.errors.empty() ? "the command client did not end well" : ended.errors);
    }
    std::string text = ended.output;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    Json result = JsonObject();
    AddMember(result.get(), "text", text);
    if (Json parsed{cJSON_Parse(text.c_str())};
        parsed && (cJSON_IsArray(parsed.get()) || cJSON_IsObject(parsed.get()))) {
      AddMember(result.get(), "json", std::move(parsed));
    }
    reply.Ok(std::move(result));
  });
}

// Shows the names of the daemon's threads with their counts.
void ShowThreads(const DaemonProcess& daemon, const Reply& reply) {
  const pid_t pid = daemon.pid();
  if (pid == 0) return reply.Fail("the daemon does not run");
  std::map<std::string, int> names;
  std::error_code error;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    if (std::getline(comm, name)) ++names[name];
  }
  Json result = JsonObject();
  for (const auto& [name, count] : names) AddMember(result.get(), name.c_str(), count);
  reply.Ok(std::move(result));
}

void Echo(AsioZemProvider& provider, const Arguments& arguments, const Reply& reply) {
  CallHealthEcho(provider, arguments.empty() ? "" : arguments[0], [reply](const HealthEcho& echo) {
    if (echo.status != 0) return reply.Fail("no echo: status " + std::to_string(echo.status));
    Json result = JsonObject();
    AddMember(result.get(), "text", echo.text);
    reply.Ok(std::move(result));
  });
}

void SendRaw(const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--within"}, {"--leave"});
  if (!options.error().empty()) return reply.Fail(options.error());
  if (options.positional().size() != 2)
    return reply.Fail("a port or path, and hexadecimal digits are needed");
  const auto bytes = FromHex(options.positional()[1]);
  const auto seconds = Seconds(options.Value("--within").value_or("5"));
  if (!bytes || !seconds) return reply.Fail("not hexadecimal, or not a number of seconds");
  InBackground([target = options.positional()[0], bytes = *bytes, leave = options.Has("--leave"),
                timeout = ToDuration(*seconds), reply] {
    const RawExchange exchange = ExchangeRaw(target, bytes, leave, timeout);
    if (!exchange.error.empty()) return reply.Fail(exchange.error);
    Json result = JsonObject();
    AddMember(result.get(), "closed", exchange.closed);
    AddMember(result.get(), "received", ToHex(exchange.received));
    reply.Ok(std::move(result));
  });
}

std::optional<uint16_t> Port(const std::string& text) {
  const auto port = NumberOf<uint16_t>(text);
  return port && *port != 0 ? port : std::nullopt;
}

void ListenRaw(RawListeners& listeners, const Arguments& arguments, const Reply& reply) {
  const auto port = Port(arguments[0]);
  const auto greeting = FromHex(arguments.size() > 1 ? arguments[1] : "");
  if (!port || !greeting) return reply.Fail("a port and hexadecimal digits are needed");
  listeners.Listen(*port, *greeting);
  reply.Ok();
}

void CloseRaw(RawListeners& listeners, const Arguments& arguments, const Reply& reply) {
  const auto port = Port(arguments[0]);
  if (!port || !listeners.Close(*port)) return reply.Fail("nobody listens raw at " + arguments[0]);
  reply.Ok();
}

void ShowRaw(const RawListeners& listeners, const Reply& reply) {
  Json result = JsonObject();
  for (const auto& [port, connections] : listeners.Connections()) {
    AddMember(result.get(), std::to_string(port).c_str(), connections);
  }
  reply.Ok(std::move(result));
}

// Compares a configuration that the manager sent with what the host has.
void ShowDiff(const Manager& manager, const HostState& host, const Arguments& arguments, const Reply& reply) {
  size_t back = 0;
  if (!arguments.empty()) back = static_cast<size_t>(Seconds(arguments[0]).value_or(0));
  const auto sent = manager.record().LastSent("HostConfigMsg", back);
  if (!sent) return reply.Fail("the manager has sent no such HostConfigMsg");
  orlane::zem::switching::HostConfigMsg config;
  if (!config.ParseFromString(*sent)) return reply.Fail("the last HostConfigMsg does not parse");
  const Json state = host.Read();
  const cJSON* const id = cJSON_GetObjectItemCaseSensitive(state.get(), "transportNodeId");
  Json lines = JsonArray();
  for (const std::string& line : DiffHost(config, cJSON_IsString(id) ? id->valuestring : "")) {
    AddItem(lines.get(), line);
  }
  Json result = JsonObject();
  AddMember(result.get(), "id", config.id());
  AddMember(result.get(), "revision", config.revision());
  AddMember(result.get(), "count", cJSON_GetArraySize(lines.get()));
  AddMember(result.get(), "lines", std::move(lines));
  reply.Ok(std::move(result));
}

// Orders the daemon's death at a step that it has not reached yet.
void OrderKill(KillSwitch& kill_switch, const Arguments& arguments, const Reply& reply) {
  if (KillSwitch::Library().empty()) return reply.Fail("this build counts no steps");
  if (arguments[0] == "never") {
    kill_switch.Disarm();
    return reply.Ok();
  }
  const auto step = NumberOf<uint32_t>(arguments[0]);
  const std::string when = arguments.size() > 1 ? arguments[1] : "before";
  if (!step || (when != "before" && when != "after")) return reply.Fail("a number, before or after");
  kill_switch.Arm(*step, when == "after");
  reply.Ok();
}

void ShowSteps(const KillSwitch& kill_switch, const Arguments& arguments, const Reply& reply) {
  const auto count = NumberOf<uint32_t>(arguments.empty() ? "0" : arguments[0]);
  if (!count) return reply.Fail("how many?");
  const KillSwitch::State state = kill_switch.state();
  Json last = JsonArray();
  for (const std::string& step : kill_switch.LastSteps(*count)) AddItem(last.get(), step);
  Json result = JsonObject();
  AddMember(result.get(), "armed", state.armed);
  AddMember(result.get(), "killed", state.killed);
  AddMember(result.get(), "step", state.step);
  AddMember(result.get(), "steps", state.steps);
  AddMember(result.get(), "last", std::move(last));
  reply.Ok(std::move(result));
}

// Makes a peer's command table available behind one word.
void Forward(CommandTable& table, const std::string& name, const std::string& help, const CommandTable& to) {
  Command command;
  command.name = name;
  command.usage = "COMMAND...";
  command.help = help;
  command.min_arguments = 1;
  command.max_arguments = 1;
  command.rest_of_line = true;
  command.handler = [&to](const Arguments& arguments, const Reply& reply) {
    to.Execute(arguments[0], reply);
  };
  table.Register(std::move(command));
}

}  // namespace

void RegisterNodeCommands(CommandTable& table, Node& node) {
  constexpr size_t kMany = 100;
  Node* const n = &node;
  for (const Node::PeerEntry& entry : n->peers_) {
    Forward(table, entry.name, entry.help, entry.commands);
  }
  table.Register({"violations", "",
                  "Shows what the daemon did that a real peer would not have accepted, by peer.", 0, 0,
                  [n](const Arguments&, const Reply& reply) {
                    Json result = JsonObject();
                    for (const Node::PeerEntry& entry : n->peers_) {
                      const std::vector<std::string> violations = entry.peer->Violations();
                      if (violations.empty()) continue;
                      Json lines = JsonArray();
                      for (const std::string& violation : violations) AddItem(lines.get(), violation);
                      AddMember(result.get(), entry.name.c_str(), std::move(lines));
                    }
                    reply.Ok(std::move(result));
                  }});
  table.Register(
      {"diff", "[BACK]",
       "Shows what the host lacks or has too much against the manager's last HostConfigMsg, or the "
       "BACKth before it.",
       0, 1, [n](const Arguments& arguments, const Reply& reply) {
         ShowDiff(*n->manager_, n->host_state_, arguments, reply);
       }});
  table.Register(
      {"show", "node [all]",
       "Draws the node: switches, uplinks, endpoints, ports, VMs, and what is not realized and why; "
       "all of them, or twenty of each.",
       1, 2, [n](const Arguments& arguments, const Reply& reply) {
         const bool all = arguments.size() > 1 && arguments[1] == "all";
         if (arguments[0] != "node" || (arguments.size() > 1 && !all)) return reply.Fail("node, or node all");
         NodeView view{n->host_state_,       *n->machines_, *n->manager_,
                       *n->host_management_, *n->daemon_,   *n->log_};
         if (all) view.most = std::numeric_limits<size_t>::max();
         std::string picture = DrawNode(view);
         for (const Node::PeerEntry& entry : n->peers_) {
           const std::vector<std::string> lines = entry.peer->Draw(view.most);
           if (!lines.empty()) picture += '\n';
           for (const std::string& line : lines) picture += line + '\n';
         }
         reply.Ok(Json(cJSON_CreateString(picture.c_str())));
       }});
  table.Register({"resync", "now [SECONDS]",
                  "Lets the manager's proxy go and come, so that the daemon compares host and ports, and "
                  "waits for the round; shows what its script said.",
                  1, 2, [n](const Arguments& arguments, const Reply& reply) {
                    ResyncNow(*n->manager_, *n->log_, n->host_state_, arguments, reply);
                  }});
  RegisterCorvdCommands(table, *n->host_management_);
  RegisterEdgeCommands(table, n->edge_);
  table.Register({"daemon/start", "", "Starts the daemon.", 0, 0, [n](const Arguments&, const Reply& reply) {
                    if (!n->daemon_->Start()) return reply.Fail("the daemon runs");
                    reply.Ok(DaemonJson(*n->daemon_));
                  }});
  table.Register({"daemon/kill", "[TERM|INT|KILL|STOP|CONT|ABRT]", "Sends the daemon a signal (TERM).", 0, 1,
                  [n](const Arguments& arguments, const Reply& reply) {
                    const auto signal = arguments.empty() ? SIGTERM : ParseSignal(arguments[0]);
                    if (!signal) return reply.Fail("no signal " + arguments[0]);
                    if (!n->daemon_->Kill(*signal)) return reply.Fail("the daemon does not run");
                    reply.Ok();
                  }});
  table.Register(
      {"daemon/wait", "[SECONDS]", "Waits for the daemon's end and tells how it ended.", 0, 1,
       [n](const Arguments& arguments, const Reply& reply) { WaitForEnd(*n->daemon_, arguments, reply); }});
  table.Register({"daemon/state", "", "Shows whether the daemon runs, its size, threads and open files.", 0,
                  0, [n](const Arguments&, const Reply& reply) { reply.Ok(DaemonJson(*n->daemon_)); }});
  table.Register({"daemon/threads", "", "Shows the names of the daemon's threads and how many bear each.", 0,
                  0, [n](const Arguments&, const Reply& reply) { ShowThreads(*n->daemon_, reply); }});
  table.Register({"daemon/environment", "NAME [VALUE]", "Sets a variable for the daemon's next start.", 1, 2,
                  [n](const Arguments& arguments, const Reply& reply) {
                    n->daemon_->SetEnvironment(arguments[0], arguments.size() > 1 ? arguments[1] : "");
                    reply.Ok();
                  }});
  table.Register(
      {"daemon/kill-at", "STEP|never [before|after]",
       "Steps count from 1 again, and the daemon is killed before (after) this one, also if it is started "
       "later; 0 only counts, never takes it back.",
       1, 2, [n](const Arguments& arguments, const Reply& reply) {
         OrderKill(*n->kill_switch_, arguments, reply);
       }});
  table.Register({"daemon/steps", "[COUNT]",
                  "Shows how many steps the daemon did since \"daemon/kill-at\", the last ones by name, and "
                  "the one at which it was killed.",
                  0, 1, [n](const Arguments& arguments, const Reply& reply) {
                    ShowSteps(*n->kill_switch_, arguments, reply);
                  }});
  RegisterLogCommands(table, *n->log_);
  table.Register({"health", "", "Shows what the daemon reports to the node's health service.", 0, 0,
                  [n](const Arguments&, const Reply& reply) { reply.Ok(HealthJson(n->health_->health())); }});
  table.Register({"health/echo", "[TEXT]",
                  "Calls the daemon's own health service; it has to repeat the text.", 0, 1,
                  [n](const Arguments& arguments, const Reply& reply) {
                    Echo(n->control_provider_, arguments, reply);
                  }});
  table.Register(
      {"socket/send", "[--leave] [--within SECONDS] PORT|PATH HEX",
       "Sends bytes to a local port or stream socket and reads until the other side closes (5 seconds), "
       "or leaves at once.",
       2, 5, [](const Arguments& arguments, const Reply& reply) { SendRaw(arguments, reply); }});
  table.Register(
      {"socket/listen", "PORT [HEX]",
       "Takes a local port and sends bytes to whoever connects, in the place of a real server.", 1, 2,
       [n](const Arguments& arguments, const Reply& reply) { ListenRaw(*n->listeners_, arguments, reply); }});
  table.Register(
      {"socket/close", "PORT", "Gives a port of \"socket/listen\" back.", 1, 1,
       [n](const Arguments& arguments, const Reply& reply) { CloseRaw(*n->listeners_, arguments, reply); }});
  table.Register({"socket/state", "", "Shows how many connections each port of \"socket/listen\" has taken.",
                  0, 0, [n](const Arguments&, const Reply& reply) { ShowRaw(*n->listeners_, reply); }});
  table.Register({"file/list", "FOLDER", "Shows the names in a folder as the node sees it.", 1, 1,
                  [](const Arguments& arguments, const Reply& reply) { ListNodeFiles(arguments, reply); }});
  table.Register({"file/read", "[--hex] PATH", "Shows a file as the node sees it, as text or as digits.", 1,
                  2, [](const Arguments& arguments, const Reply& reply) { ReadNodeFile(arguments, reply); }});
  table.Register({"file/write", "PATH [LINE...]",
                  "Writes a file of the node, and its folders; there is no newline behind the last line.", 1,
                  kMany,
                  [](const Arguments& arguments, const Reply& reply) { WriteNodeFile(arguments, reply); }});
  table.Register({"file/remove", "PATH", "Removes a file of the node.", 1, 1,
                  [](const Arguments& arguments, const Reply& reply) {
                    if (::unlink(arguments[0].c_str()) < 0) return reply.Fail(std::strerror(errno));
                    reply.Ok();
                  }});
  table.Register({"disk/limit", "FOLDER KIB", "Gives a folder, with its files, so small a disk.", 2, 2,
                  [](const Arguments& arguments, const Reply& reply) {
                    SmallDisk(reply, [&arguments] {
                      LimitDisk(arguments[0], arguments[1]);
                      return JsonObject();
                    });
                  }});
  table.Register({"disk/fill", "FOLDER", "Fills the disk of \"disk/limit\" to the last byte.", 1, 1,
                  [](const Arguments& arguments, const Reply& reply) {
                    SmallDisk(reply, [&arguments] {
                      Json result = JsonObject();
                      AddMember(result.get(), "bytes", static_cast<uint64_t>(FillDisk(arguments[0])));
                      return result;
                    });
                  }});
  table.Register({"disk/free", "FOLDER", "Takes back what \"disk/fill\" has written.", 1, 1,
                  [](const Arguments& arguments, const Reply& reply) {
                    if (!FreeDisk(arguments[0])) return reply.Fail(std::strerror(errno));
                    reply.Ok();
                  }});
  table.Register({"cli", "COMMAND [ARGUMENT...]", "Runs a command on the daemon's command socket.", 1, kMany,
                  [](const Arguments& arguments, const Reply& reply) { Cli(arguments, reply); }});
  table.Register({"tarvikctl", "[WORD...]",
                  "Runs the operators' program; answers its code and what it printed.", 0, kMany,
                  [n](const Arguments& arguments, const Reply& reply) {
                    Tarvikctl(n->options_.tarvikctl, arguments, reply);
                  }});
  table.Register({"stop", "", "Ends the node.", 0, 0, [n](const Arguments&, const Reply& reply) {
                    reply.Ok();
                    // Scheduled, so that the answer is sent first.
                    n->control_provider_.timers().Schedule(kFarewell, [n] { n->control_provider_.Stop(); });
                  }});
}

}  // namespace zem::sim
