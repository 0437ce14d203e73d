// The node's own commands: the daemon, its log, its health, its files, its command socket, and the ways to
// the peers.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>

#include "framework/child_process.h"
#include "platform/core/thread.h"
#include "platform/core/timer.h"
#include "sim/node/node.h"
#include "sim/node/sandbox.h"

namespace zem::sim {
namespace {

constexpr const char* kCliSocket = "/run/orlane/zem-tarvik/tarvik-cli";
constexpr const char* kCliClient = "/usr/bin/ovs-appctl";
constexpr auto kFarewell = std::chrono::milliseconds(100);
constexpr auto kCliPatience = std::chrono::seconds(20);
constexpr size_t kMaxFile = size_t{1024} * 1024;

std::optional<double> Seconds(const std::string& text) {
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 0) return std::nullopt;
  return number;
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

Json LineJson(const LogLine& line) {
  Json item = JsonObject();
  AddMember(item.get(), "number", line.number);
  AddMember(item.get(), "facility", line.facility);
  AddMember(item.get(), "severity", line.severity);
  AddMember(item.get(), "identity", line.identity);
  AddMember(item.get(), "pid", line.pid);
  AddMember(item.get(), "text", line.text);
  return item;
}

// Waits away from the control thread; a scenario may break things meanwhile.
void InBackground(std::function<void()> work) {
  Thread::Options options;
  options.detached = true;
  const Thread started(std::move(options), std::move(work));
}

bool ValidPattern(const std::string& pattern, const Reply& reply) {
  try {
    const std::regex expression(pattern);
    return true;
  } catch (const std::regex_error& error) {
    reply.Fail("bad pattern " + pattern + ": " + error.what());
    return false;
  }
}

void WaitForLog(const LogSink& log, const Arguments& arguments, const Reply& reply) {
  const double seconds = arguments.size() > 1 ? Seconds(arguments[1]).value_or(10) : 10;
  const uint64_t after = arguments.size() > 2 ? static_cast<uint64_t>(Seconds(arguments[2]).value_or(0)) : 0;
  if (!ValidPattern(arguments[0], reply)) return;
  InBackground([&log, pattern = arguments[0], seconds, after, reply] {
    if (const auto line = log.Wait(pattern, after, ToDuration(seconds))) {
      reply.Ok(LineJson(*line));
    } else {
      reply.Fail("no log line matches " + pattern);
    }
  });
}

void FindLog(const LogSink& log, const Arguments& arguments, const Reply& reply) {
  const std::string pattern = arguments.empty() ? "" : arguments[0];
  const size_t limit = arguments.size() > 1 ? static_cast<size_t>(Seconds(arguments[1]).value_or(20)) : 20;
  const uint64_t after = arguments.size() > 2 ? static_cast<uint64_t>(Seconds(arguments[2]).value_or(0)) : 0;
  if (!ValidPattern(pattern, reply)) return;
  Json lines = JsonArray();
  for (const LogLine& line : log.Find(pattern, after, limit)) AddItem(lines.get(), LineJson(line));
  Json result = JsonObject();
  AddMember(result.get(), "count", static_cast<int64_t>(cJSON_GetArraySize(lines.get())));
  AddMember(result.get(), "last_number", log.last_number());
  AddMember(result.get(), "lines", std::move(lines));
  reply.Ok(std::move(result));
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
    int64_t value = 0;
    words >> key >> value;
    if (key == "VmRSS:") AddMember(result.get(), "resident_kib", value);
    if (key == "Threads:") AddMember(result.get(), "threads", value);
  }
  return result;
}

void WaitForEnd(DaemonProcess& daemon, const Arguments& arguments, const Reply& reply) {
  const double seconds = arguments.empty() ? 10 : Seconds(arguments[0]).value_or(10);
  InBackground([&daemon, seconds, reply] {
    const auto status = daemon.Wait(ToDuration(seconds));
    if (!status) return reply.Fail("the daemon still runs");
    Json result = JsonObject();
    AddMember(result.get(), "ended_by", WaitStatusText(*status));
    reply.Ok(std::move(result));
  });
}

void ReadNodeFile(const Arguments& arguments, const Reply& reply) {
  std::ifstream in(arguments[0], std::ios::binary);
  if (!in) return reply.Fail(arguments[0] + ": " + std::strerror(errno));
  std::string text(kMaxFile, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(in.gcount()));
  Json result = JsonObject();
  AddMember(result.get(), "size", static_cast<uint64_t>(text.size()));
  AddMember(result.get(), "text", text);
  reply.Ok(std::move(result));
}

void WriteNodeFile(const Arguments& arguments, const Reply& reply) {
  std::ofstream out(arguments[0], std::ios::binary | std::ios::trunc);
  out << (arguments.size() > 1 ? arguments[1] : "");
  out.close();
  if (!out) return reply.Fail(arguments[0] + ": " + std::strerror(errno));
  reply.Ok();
}

// The daemon's command socket, by the client that operators use.
void Cli(const Arguments& arguments, const Reply& reply) {
  InBackground([arguments, reply] {
    Tarvik::ChildProcess::Options options;
    options.argv = {kCliClient, "-t", kCliSocket};
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.time_limit = kCliPatience;
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

// A peer's table under one word.
void Forward(CommandTable& table, const char* name, const char* help, const CommandTable& to) {
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
  Forward(table, "store", "The store daemon; \"store help\" lists its commands.", n->store_commands_);
  Forward(table, "manager", "Proxy, APHs and manager; \"manager help\" lists their commands.",
          n->manager_commands_);
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
  table.Register({"daemon/state", "", "Shows whether the daemon runs, its size and threads.", 0, 0,
                  [n](const Arguments&, const Reply& reply) { reply.Ok(DaemonJson(*n->daemon_)); }});
  table.Register(
      {"log/wait", "PATTERN [SECONDS [AFTER]]",
       "Waits for a line of the node's log that matches (10 seconds), after line number AFTER.", 1, 3,
       [n](const Arguments& arguments, const Reply& reply) { WaitForLog(*n->log_, arguments, reply); }});
  table.Register(
      {"log/find", "[PATTERN [LIMIT [AFTER]]]", "Shows the newest lines of the node's log that match.", 0, 3,
       [n](const Arguments& arguments, const Reply& reply) { FindLog(*n->log_, arguments, reply); }});
  table.Register({"health", "", "Shows what the daemon reports to the node's health service.", 0, 0,
                  [n](const Arguments&, const Reply& reply) { reply.Ok(HealthJson(n->health_->health())); }});
  table.Register({"file/read", "PATH", "Shows a file as the node sees it.", 1, 1,
                  [](const Arguments& arguments, const Reply& reply) { ReadNodeFile(arguments, reply); }});
  table.Register({"file/write", "PATH [TEXT]", "Writes a file of the node.", 1, 2,
                  [](const Arguments& arguments, const Reply& reply) { WriteNodeFile(arguments, reply); }});
  table.Register({"file/remove", "PATH", "Removes a file of the node.", 1, 1,
                  [](const Arguments& arguments, const Reply& reply) {
                    if (::unlink(arguments[0].c_str()) < 0) return reply.Fail(std::strerror(errno));
                    reply.Ok();
                  }});
  table.Register({"cli", "COMMAND [ARGUMENT...]", "Runs a command on the daemon's command socket.", 1, kMany,
                  [](const Arguments& arguments, const Reply& reply) { Cli(arguments, reply); }});
  table.Register({"stop", "", "Ends the node.", 0, 0, [n](const Arguments&, const Reply& reply) {
                    reply.Ok();
                    // After the answer has left.
                    n->control_provider_.timers().Schedule(kFarewell, [n] { n->control_provider_.Stop(); });
                  }});
}

}  // namespace zem::sim
