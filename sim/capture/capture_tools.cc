#include "sim/capture/capture_tools.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace zem::sim::capture {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFolder = "/run/orlane/sim/capture";
constexpr const char* kProxy = "knlctlProxy";
constexpr std::array kTools = {"pktcap-uw", "tcpdump-uw", "find_portid", kProxy};
constexpr std::array kProcesses = {"pktcap-uw", "tcpdump-uw", "find_portid", "sbundle-upload.py"};
constexpr std::array kTemporary = {"tarvik-pktcap-dump.", "pktcapApp-tmp."};

std::string FileOf(const std::string& name) { return std::string(kFolder) + "/" + name; }

std::vector<ToolRun> ReadRuns(const std::string& name) {
  std::vector<ToolRun> runs;
  std::ifstream file(FileOf(name));
  for (std::string line; std::getline(file, line);) {
    std::istringstream parts(line);
    ToolRun run;
    std::string pid;
    std::getline(parts, run.tool, '\t');
    std::getline(parts, pid, '\t');
    run.pid = static_cast<pid_t>(std::atoi(pid.c_str()));
    for (std::string word; std::getline(parts, word, '\t');) run.words.push_back(word);
    runs.push_back(std::move(run));
  }
  return runs;
}

// Whether one of the words of a process's command line is the tool's name, or a path that ends with it.
bool IsProcessOf(const fs::path& process, const std::string& tool) {
  std::ifstream file(process / "cmdline", std::ios::binary);
  const std::string line((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::istringstream words(line);
  int looked = 0;
  for (std::string word; looked < 2 && std::getline(words, word, '\0'); ++looked) {
    if (fs::path(word).filename() == tool) return true;
  }
  return false;
}

bool IsDead(const fs::path& process) {
  std::ifstream file(process / "stat");
  std::string line;
  std::getline(file, line);
  const size_t state = line.rfind(") ");
  return state == std::string::npos || line[state + 2] == 'Z';
}

}  // namespace

void SetMode(const std::string& tool, const std::vector<std::string>& words) {
  if (std::find(kTools.begin(), kTools.end(), tool) == kTools.end()) {
    throw std::runtime_error("no capture tool " + tool);
  }
  fs::create_directories(kFolder);
  if (words.empty()) {
    fs::remove(FileOf("mode." + tool));
    return;
  }
  std::ofstream file(FileOf("mode." + tool), std::ios::trunc);
  for (const std::string& word : words) file << word << (&word == &words.back() ? "\n" : " ");
}

void ClearModes() {
  for (const char* const tool : kTools) SetMode(tool, {});
}

std::vector<ToolRun> Runs() { return ReadRuns("runs"); }
std::vector<ToolRun> Signals() { return ReadRuns("signals"); }

void ForgetRuns() {
  fs::remove(FileOf("runs"));
  fs::remove(FileOf("signals"));
}

std::vector<pid_t> Running(const std::string& tool) {
  std::vector<pid_t> pids;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    if (IsProcessOf(entry.path(), tool) && !IsDead(entry.path())) {
      pids.push_back(static_cast<pid_t>(std::atoi(name.c_str())));
    }
  }
  return pids;
}

std::vector<std::string> Leftovers() {
  std::vector<std::string> lines;
  for (const char* const process : kProcesses) {
    for (const pid_t pid : Running(process))
      lines.push_back(std::string(process) + " runs as " + std::to_string(pid));
  }
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/tmp", error)) {
    const std::string name = entry.path().filename();
    for (const char* const begin : kTemporary) {
      if (name.starts_with(begin)) lines.push_back("there is /tmp/" + name);
    }
  }
  return lines;
}

}  // namespace zem::sim::capture
