#include "sim/host/bundle_commands.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "framework/process/child_process.h"
#include "sim/control/command_table.h"
#include "sim/control/json.h"

namespace zem::sim {
namespace {

namespace fs = std::filesystem;

constexpr const char* kArchiveTool = "/usr/lib64/orlane/zem-tarvik/pylum/zema/archive.py";
constexpr const char* kCollectScript = "/usr/lib64/orlane/zem-tarvik/libexec/sbundle-collect.py";
constexpr const char* kBundlePrefix = "zem-sbundle-";
constexpr size_t kMostText = 16 * 1024 * 1024;

struct Fault {
  const char* name;
  bool needs_value;
};
constexpr std::array kFaults = {Fault{"exit", true},      Fault{"signal", true},   Fault{"hang", false},
                                Fault{"sleep", true},     Fault{"stderr", true},   Fault{"say", true},
                                Fault{"late-exit", true}, Fault{"deaf", true},     Fault{"missing", false},
                                Fault{"empty", false},    Fault{"symlink", false}, Fault{"two-lines", false}};

void AddFault(const Arguments& arguments, const Reply& reply) {
  const std::string& script = arguments[0];
  if (script != "collect" && script != "upload") return reply.Fail("collect or upload");
  const auto* const fault =
      std::ranges::find_if(kFaults, [&](const Fault& each) { return arguments[1] == each.name; });
  if (fault == kFaults.end()) return reply.Fail("no fault \"" + arguments[1] + "\"");
  if (fault->needs_value && arguments.size() < 3) return reply.Fail(arguments[1] + " needs a value");
  static std::atomic<unsigned> last{0};
  char name[64];
  std::snprintf(name, sizeof(name), "%s.fault-%08u", script.c_str(), ++last);
  const fs::path path = fs::path(kBundleFolder) / name;
  const fs::path temporary = path.string() + ".new";
  std::ofstream(temporary) << arguments[1] << ' ' << (arguments.size() > 2 ? arguments[2] : "") << '\n';
  fs::rename(temporary, path);
  reply.Ok();
}

void Mend(const Reply& reply) {
  for (const auto& entry : fs::directory_iterator(kBundleFolder)) {
    std::error_code used_up_meanwhile;
    if (entry.path().string().find(".fault-") != std::string::npos)
      fs::remove(entry.path(), used_up_meanwhile);
  }
  reply.Ok();
}

void ShowRuns(const Reply& reply) {
  Json runs = JsonArray();
  std::ifstream in(fs::path(kBundleFolder) / "journal");
  for (std::string line; std::getline(in, line);) {
    if (Json run(cJSON_Parse(line.c_str())); run) AddItem(runs.get(), std::move(run));
  }
  Json result = JsonObject();
  AddMember(result.get(), "count", cJSON_GetArraySize(runs.get()));
  AddMember(result.get(), "runs", std::move(runs));
  reply.Ok(std::move(result));
}

void LookInto(const char* action, const Arguments& arguments, const Reply& reply) {
  Tarvik::ChildProcess::Options options;
  options.argv = {"/usr/bin/python3", kArchiveTool, action};
  options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
  options.output_limit = kMostText;
  const Tarvik::ChildResult done = Tarvik::ChildProcess(std::move(options)).Run();
  Json result(cJSON_Parse(done.output.c_str()));
  if (done.end != Tarvik::ChildEnd::kExited || done.value != 0 || !result)
    return reply.Fail("no archive of this kind: " + done.errors);
  reply.Ok(std::move(result));
}

// As an operator does it, without the agent.
void Collect(const Arguments& arguments, const Reply& reply) {
  Tarvik::ChildProcess::Options options;
  options.argv = {"/usr/bin/python3", kCollectScript};
  options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
  Tarvik::ChildResult done = Tarvik::ChildProcess(std::move(options)).Run();
  if (done.end != Tarvik::ChildEnd::kExited) return reply.Fail("the script was ended");
  if (!done.output.empty()) done.output.pop_back();
  Json result = JsonObject();
  AddMember(result.get(), "exit", done.value);
  AddMember(result.get(), "file", done.output);
  AddMember(result.get(), "error", done.errors);
  reply.Ok(std::move(result));
}

}  // namespace

std::vector<std::string> TemporaryBundles() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(kBundlePrefix)) names.push_back(name);
  }
  return names;
}

void RegisterBundleCommands(CommandTable& table) {
  fs::create_directories(kBundleFolder);
  using A = const Arguments&;
  using R = const Reply&;
  table.Register({"fault", "collect|upload FAULT [VALUE]",
                  "Spoils the next run of a script: exit CODE, late-exit CODE (with the bundle made), deaf "
                  "CODE (without "
                  "reading), signal NUMBER, hang, sleep SECONDS, stderr MIB, say TEXT, missing, empty, "
                  "symlink, two-lines.",
                  2, 3, [](A a, R r) { AddFault(a, r); }, true});
  table.Register({"mend", "", "Ends all faults to come.", 0, 0, [](A, R r) { Mend(r); }});
  table.Register({"runs", "", "Shows each run of a script with its arguments and its input.", 0, 0,
                  [](A, R r) { ShowRuns(r); }});
  table.Register({"left", "", "Shows what stands in the folder of temporary files.", 0, 0, [](A, R r) {
                    Json names = JsonArray();
                    for (const std::string& name : TemporaryBundles()) AddItem(names.get(), name);
                    r.Ok(std::move(names));
                  }});
  table.Register({"collect", "FOLDER [ARGUMENT...]", "Runs the agent's collecting script by hand.", 1, 5,
                  [](A a, R r) { Collect(a, r); }});
  table.Register(
      {"list", "FILE", "Shows the members of an archive.", 1, 1, [](A a, R r) { LookInto("list", a, r); }});
  table.Register(
      {"read", "FILE MEMBER", "Shows the text of a member.", 2, 2, [](A a, R r) { LookInto("read", a, r); }});
  table.Register({"search", "FILE TEXT", "Shows which members of an archive hold a text.", 2, 2,
                  [](A a, R r) { LookInto("search", a, r); }, true});
}

}  // namespace zem::sim
