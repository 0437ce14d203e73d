#include "sim/host/detection_commands.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <optional>

#include "sim/control/command_table.h"
#include "sim/control/number.h"

namespace zem::sim {
namespace {

namespace fs = std::filesystem;

constexpr std::array kTools = {"hvprobe", "memstats", "du"};
constexpr std::array kModes = {"exit", "empty", "words", "lines", "much", "hang"};

fs::path File(const std::string& name) { return fs::path(kDetectionFolder) / name; }

std::string Read(const std::string& name, const std::string& otherwise = {}) {
  std::string text;
  std::ifstream in(File(name));
  return std::getline(in, text) ? text : otherwise;
}

// A tool that runs meanwhile sees the old value or the new.
void Write(const std::string& name, const std::string& text) {
  fs::create_directories(kDetectionFolder);
  const fs::path temporary = File(name + ".new");
  std::ofstream(temporary, std::ios::trunc) << text << '\n';
  fs::rename(temporary, File(name));
}

void Start(const Arguments& arguments, const Reply& reply) {
  if (!arguments.empty()) {
    if (!NumberOf<uint32_t>(arguments[0])) return reply.Fail("not a number");
    Write("group", arguments[0]);
  }
  Write("running", "1");
  reply.Ok();
}

void SetMemory(const Arguments& arguments, const Reply& reply) {
  Write("max", arguments[0]);
  Write("consumed", arguments[1]);
  reply.Ok();
}

void SetFolder(const Arguments& arguments, const Reply& reply) {
  std::error_code ignored;
  if (arguments[0] == "real") {
    fs::remove(File("folder"), ignored);
  } else if (NumberOf<uint64_t>(arguments[0])) {
    Write("folder", arguments[0]);
  } else {
    return reply.Fail("a number of KiB, or real");
  }
  reply.Ok();
}

void SetTool(const Arguments& arguments, const Reply& reply) {
  if (std::ranges::find(kTools, arguments[0]) == kTools.end()) return reply.Fail("hvprobe, memstats or du");
  std::string mode;
  for (size_t i = 1; i < arguments.size(); ++i) mode += (i > 1 ? " " : "") + arguments[i];
  std::error_code ignored;
  if (mode == "works") {
    fs::remove(File(arguments[0] + ".mode"), ignored);
    return reply.Ok();
  }
  if (std::ranges::find(kModes, mode.substr(0, mode.find(' '))) == kModes.end() ||
      (mode.starts_with("exit") && !NumberOf<int>(mode.substr(std::min<size_t>(5, mode.size()))))) {
    return reply.Fail("works, exit N, empty, words, lines, much or hang");
  }
  Write(arguments[0] + ".mode", mode);
  reply.Ok();
}

void ShowRuns(const Reply& reply) {
  Json runs = JsonArray();
  std::ifstream in(File("journal"));
  for (std::string line; std::getline(in, line);) AddItem(runs.get(), line);
  reply.Ok(std::move(runs));
}

void Show(const Reply& reply) {
  Json state = JsonObject();
  AddMember(state.get(), "running", Read("running", "0") == "1");
  AddMember(state.get(), "group", Read("group", "4711"));
  AddMember(state.get(), "max", Read("max", "1024"));
  AddMember(state.get(), "consumed", Read("consumed", "100"));
  AddMember(state.get(), "folder", Read("folder", "real"));
  reply.Ok(std::move(state));
}

}  // namespace

void RegisterDetectionCommands(CommandTable& table) {
  table.Register({"start", "[GROUP]", "The process runs, in the process group GROUP.", 0, 1, &Start});
  table.Register({"stop", "", "The process is down.", 0, 0, [](const Arguments&, const Reply& reply) {
                    Write("running", "0");
                    reply.Ok();
                  }});
  table.Register(
      {"memory", "MAX CONSUMED", "What memstats says of its group, in MiB; any text.", 2, 2, &SetMemory});
  table.Register({"folder", "KIB|real", "How much the folder of captures holds.", 1, 1, &SetFolder});
  table.Register({"tool", "hvprobe|memstats|du works|exit N|empty|words|lines|much|hang",
                  "How a tool of the host behaves.", 2, 3, &SetTool});
  table.Register({"runs", "", "Each run of a tool: the machine's seconds, name and arguments.", 0, 0,
                  [](const Arguments&, const Reply& reply) { ShowRuns(reply); }});
  table.Register({"show", "", "Shows what the tools tell.", 0, 0,
                  [](const Arguments&, const Reply& reply) { Show(reply); }});
}

std::vector<std::string> DrawDetection() {
  if (!fs::exists(kDetectionFolder)) return {};
  const bool running = Read("running", "0") == "1";
  return {std::string("detection process: ") + (running ? "runs" : "down") + ", " + Read("consumed", "100") +
          " of " + Read("max", "1024") + " MiB, captures " + Read("folder", "real")};
}

}  // namespace zem::sim
