#include "sim/host/neighbour_commands.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/number.h"
#include "sim/host/host_state.h"
#include "sim/host/named_processes.h"

namespace zem::sim {
namespace {

namespace fs = std::filesystem;

constexpr const char* kProcessName = "zem-lum";
constexpr unsigned kDefaultTtl = 120;
constexpr unsigned kMostFaults = 1000;

struct Fault {
  const char* name;
  bool at_start;
  bool needs_value;
};
constexpr std::array kFaults = {
    Fault{"delay", false, true},       Fault{"close", false, false},    Fault{"half-header", false, false},
    Fault{"half-data", false, false},  Fault{"stall", false, false},    Fault{"length", false, true},
    Fault{"size", false, true},        Fault{"empty", false, false},    Fault{"error", false, true},
    Fault{"garbage", false, false},    Fault{"exit", false, false},     Fault{"hang", false, false},
    Fault{"print", false, true},       Fault{"no-listen", true, false}, Fault{"late-listen", true, true},
    Fault{"ignore-term", true, false}, Fault{"no-name", true, false},   Fault{"exit-at-start", true, false},
};

constexpr std::array kSignals = {std::pair{"KILL", SIGKILL}, std::pair{"TERM", SIGTERM},
                                 std::pair{"STOP", SIGSTOP}, std::pair{"CONT", SIGCONT}};

fs::path File(const std::string& name) { return fs::path(kNeighbourFolder) / name; }

Json ReadNeighbours() {
  std::ifstream in(File("neighbours"));
  std::stringstream text;
  text << in.rdbuf();
  Json known(cJSON_Parse(text.str().c_str()));
  return known ? std::move(known) : JsonObject();
}

// The script sees the old file or the new one.
void WriteFile(const std::string& name, const std::string& text) {
  fs::create_directories(kNeighbourFolder);
  const fs::path temporary = File("." + name + ".new");
  std::ofstream(temporary, std::ios::trunc) << text << '\n';
  fs::rename(temporary, File(name));
}

const char* TextOf(const cJSON* object, const char* name) {
  const char* const text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
  return text != nullptr ? text : "";
}

void Add(const HostState& state, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--chassis", "--port", "--ttl"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  if (options.positional().size() != 2) return reply.Fail("an interface and a system's name are needed");
  const std::string& interface = options.positional()[0];
  const Json host = state.Read();
  if (cJSON_GetObjectItemCaseSensitive(cJSON_GetObjectItemCaseSensitive(host.get(), "pnics"),
                                       interface.c_str()) == nullptr) {
    return reply.Fail("the host has no physical NIC " + interface);
  }
  const auto ttl = NumberOf<uint32_t>(options.Value("--ttl").value_or(std::to_string(kDefaultTtl)));
  if (!ttl) return reply.Fail("--ttl takes seconds");
  Json known = ReadNeighbours();
  cJSON* list = cJSON_GetObjectItemCaseSensitive(known.get(), interface.c_str());
  if (list == nullptr) {
    AddMember(known.get(), interface.c_str(), JsonArray());
    list = cJSON_GetObjectItemCaseSensitive(known.get(), interface.c_str());
  }
  Json neighbour = JsonObject();
  AddMember(neighbour.get(), "system", options.positional()[1]);
  AddMember(neighbour.get(), "chassis", options.Value("--chassis").value_or("00:1b:21:aa:bb:cc"));
  AddMember(neighbour.get(), "port", options.Value("--port").value_or("Ethernet1/1"));
  AddMember(neighbour.get(), "ttl", *ttl);
  AddItem(list, std::move(neighbour));
  WriteFile("neighbours", JsonText(known.get()));
  reply.Ok();
}

void Remove(const Arguments& arguments, const Reply& reply) {
  Json known = ReadNeighbours();
  cJSON* const list = cJSON_GetObjectItemCaseSensitive(known.get(), arguments[0].c_str());
  int removed = 0;
  for (int i = cJSON_GetArraySize(list) - 1; i >= 0; --i) {
    if (arguments.size() > 1 && arguments[1] != TextOf(cJSON_GetArrayItem(list, i), "system")) continue;
    cJSON_DeleteItemFromArray(list, i);
    ++removed;
  }
  if (removed == 0) return reply.Fail("there is no such neighbour");
  WriteFile("neighbours", JsonText(known.get()));
  reply.Ok();
}

void AddFault(const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--count"}, {"--ping"});
  if (!options.error().empty()) return reply.Fail(options.error());
  if (options.positional().empty()) return reply.Fail("which fault?");
  const std::string& name = options.positional()[0];
  const auto* const fault =
      std::ranges::find_if(kFaults, [&](const Fault& each) { return name == each.name; });
  if (fault == kFaults.end()) return reply.Fail("no fault \"" + name + "\"");
  const std::string value = options.Rest(1);
  if (fault->needs_value && value.empty()) return reply.Fail(name + " needs a value");
  const auto count = NumberOf<unsigned>(options.Value("--count").value_or("1"));
  if (!count || *count == 0 || *count > kMostFaults) return reply.Fail("--count takes a number");
  const std::string when = fault->at_start ? "start" : options.Has("--ping") ? "rpcping" : "rpcquery";
  const std::string action = name == "exit-at-start" ? "exit" : name;
  static std::atomic<unsigned> last{0};
  for (unsigned i = 0; i < *count; ++i) {
    char file[32];
    std::snprintf(file, sizeof(file), "fault-%08u", ++last);
    WriteFile(file, when + " " + action + " " + value);
  }
  reply.Ok();
}

void Mend(const Reply& reply) {
  if (fs::exists(kNeighbourFolder)) {
    for (const auto& entry : fs::directory_iterator(kNeighbourFolder)) {
      if (!entry.path().filename().string().starts_with("fault-")) continue;
      std::error_code used_up_meanwhile;
      fs::remove(entry.path(), used_up_meanwhile);
    }
  }
  reply.Ok();
}

std::vector<Json> Journal() {
  std::vector<Json> entries;
  std::ifstream in(File("journal"));
  for (std::string line; std::getline(in, line);) {
    if (Json entry(cJSON_Parse(line.c_str())); entry) entries.push_back(std::move(entry));
  }
  return entries;
}

void ShowJournal(const Arguments& arguments, const Reply& reply) {
  const auto most = NumberOf<size_t>(arguments.empty() ? "20" : arguments[0]);
  if (!most) return reply.Fail("how many?");
  uint64_t starts = 0;
  std::vector<Json> requests;
  for (Json& entry : Journal()) {
    if (cJSON_HasObjectItem(entry.get(), "start") != 0) {
      ++starts;
    } else {
      requests.push_back(std::move(entry));
    }
  }
  Json result = JsonObject();
  AddMember(result.get(), "starts", starts);
  AddMember(result.get(), "count", static_cast<uint64_t>(requests.size()));
  Json newest = JsonArray();
  for (size_t i = requests.size() - std::min(*most, requests.size()); i < requests.size(); ++i) {
    AddItem(newest.get(), std::move(requests[i]));
  }
  AddMember(result.get(), "requests", std::move(newest));
  reply.Ok(std::move(result));
}

void ShowProcesses(const Reply& reply) {
  Json pids = JsonArray();
  for (const pid_t pid : ProcessesNamed(kProcessName)) AddItem(pids.get(), std::to_string(pid));
  reply.Ok(std::move(pids));
}

void Signal(const Arguments& arguments, const Reply& reply) {
  const auto* const found =
      std::ranges::find_if(kSignals, [&](const auto& each) { return arguments[0] == each.first; });
  if (found == kSignals.end()) return reply.Fail("KILL, TERM, STOP or CONT");
  const auto pids = ProcessesNamed(kProcessName);
  if (pids.empty()) return reply.Fail("no script runs");
  for (const pid_t pid : pids) {
    if (::kill(pid, found->second) != 0 && errno != ESRCH) return reply.Fail(std::strerror(errno));
  }
  reply.Ok();
}

}  // namespace

void RegisterNeighbourCommands(CommandTable& table, const HostState& state) {
  fs::create_directories(kNeighbourFolder);
  using A = const Arguments&;
  using R = const Reply&;
  table.Register({"add", "[--chassis ID] [--port ID] [--ttl SECONDS] INTERFACE SYSTEM",
                  "A neighbour appears at a physical NIC.", 2, 8, [&state](A a, R r) { Add(state, a, r); }});
  table.Register({"remove", "INTERFACE [SYSTEM]", "A neighbour goes, or all of a NIC.", 1, 2,
                  [](A a, R r) { Remove(a, r); }});
  table.Register(
      {"show", "", "Shows the neighbours of each NIC.", 0, 0, [](A, R r) { r.Ok(ReadNeighbours()); }});
  table.Register({"journal", "[COUNT]",
                  "Shows how often the script was started, and its last requests (20) in hexadecimal digits.",
                  0, 1, [](A a, R r) { ShowJournal(a, r); }});
  table.Register({"fault", "[--count N] [--ping] FAULT [VALUE]",
                  "Spoils the answer to the next question, or with --ping to the next sign of life: delay "
                  "SECONDS, close, "
                  "half-header, half-data, stall, length N, size N, empty, error TEXT, garbage, exit, hang, "
                  "print MIB; or "
                  "the next start: no-listen, late-listen SECONDS, ignore-term, no-name, exit-at-start.",
                  1, 16, [](A a, R r) { AddFault(a, r); }});
  table.Register({"mend", "", "Ends all faults to come.", 0, 0, [](A, R r) { Mend(r); }});
  table.Register({"processes", "", "Shows the script's processes.", 0, 0, [](A, R r) { ShowProcesses(r); }});
  table.Register({"signal", "KILL|TERM|STOP|CONT", "Sends a signal to the script.", 1, 1,
                  [](A a, R r) { Signal(a, r); }});
}

std::vector<std::string> DrawNeighbours() {
  const Json known = ReadNeighbours();
  std::vector<std::string> lines;
  const cJSON* interface = nullptr;
  cJSON_ArrayForEach(interface, known.get()) {
    const cJSON* neighbour = nullptr;
    cJSON_ArrayForEach(neighbour, interface) {
      lines.push_back(std::string("neighbour of ") + interface->string + ": " + TextOf(neighbour, "system") +
                      " " + TextOf(neighbour, "port"));
    }
  }
  return lines;
}

std::vector<std::string> NeighbourViolations() {
  // "rpcquery" or "rpcping" with its line feed.
  constexpr std::array kCommands = {"72706371756572790a", "72706370696e670a"};
  std::vector<std::string> violations;
  for (const Json& entry : Journal()) {
    if (cJSON_HasObjectItem(entry.get(), "start") != 0) continue;
    const std::string request = TextOf(entry.get(), "request");
    if (std::ranges::none_of(kCommands, [&](const char* command) { return request.starts_with(command); }))
      violations.push_back("neighbours: a request that is none: " + request.substr(0, 64));
  }
  return violations;
}

}  // namespace zem::sim
