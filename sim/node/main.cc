// zem-node: runs a simulated node, sends it commands, runs scenarios on it.

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/core/clock_factor.h"
#include "platform/core/thread.h"
#include "sim/alarmpeers/peer_program.h"
#include "sim/control/json.h"
#include "sim/data/data_folder.h"
#include "sim/node/node.h"
#include "sim/sandbox/sandbox.h"
#include "sim/scenario/control_client.h"
#include "sim/scenario/scenario.h"

namespace {

using zem::sim::ControlClient;

constexpr const char* kDefaultDirectory = "/tmp/zem-node";
constexpr int kUsageError = 2;
constexpr auto kNodeStart = std::chrono::seconds(20);

constexpr const char* kUsage =
    "usage: zem-node run [OPTIONS]              runs a node until it is stopped\n"
    "       zem-node ctl [--dir DIR] [--json] COMMAND\n"
    "                                           sends one command, prints its answer: JSON, or text as it "
    "stands\n"
    "                                           unless --json; \"ctl help\" lists them\n"
    "       zem-node scenario [--dir DIR] FILE  runs the commands and expectations of a file\n"
    "       zem-node check FILE [OPTIONS]       runs a scenario on a node of its own\n"
    "options of run and check:\n"
    "  --dir DIR        the node's folder: control socket and daemon output (/tmp/zem-node)\n"
    "  --daemon FILE    the daemon's program (that of the same build, or the installed one)\n"
    "  --options FILE   the daemon's XML options\n"
    "  --zema FILE      the realization's JSON options\n"
    "  --datastore FOLDER  where VMs are made, for several nodes that see the same (the node's own)\n"
    "  --second         check alone: another node like it, which sees the same VMs' folders\n"
    "  --launcher WORDS a program that becomes the daemon, whose path is put behind the words\n"
    "  --issue TEXT     the identity file's text; \"\" leaves it away\n"
    "  --clock-factor N all of the node lives N times as fast, up to 100 (1)\n"
    "  --no-daemon      the daemon is started by \"daemon/start\"\n"
    "  --follow         prints the daemon's log\n"
    "exit code: 0 only when what was asked was done\n";

struct Words {
  std::vector<std::string> all;
  size_t next = 0;

  bool empty() const { return next >= all.size(); }
  std::string Take() { return empty() ? std::string() : all[next++]; }
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error(path + ": " + std::strerror(errno));
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string DaemonBeside(const char* program) {
  std::string path(4096, '\0');
  const ssize_t size = ::readlink("/proc/self/exe", path.data(), path.size());
  path = size > 0 ? path.substr(0, static_cast<size_t>(size)) : program;
  const std::string here = path.substr(0, path.rfind('/'));
  for (const std::string& candidate :
       {here + "/zem-tarvik", here + "/../../agent/zem-tarvik", std::string(zem::sim::kDaemonPath)}) {
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return here + "/zem-tarvik";
}

int RunNode(Words words, const char* program) {
  zem::sim::SandboxOptions sandbox{kDefaultDirectory, DaemonBeside(program), zem::sim::DataFolder::Get().host,
                                   zem::sim::DataFolder::Get().libraries};
  sandbox.agent_scripts = zem::sim::DataFolder::Get().agent_scripts;
  zem::sim::NodeOptions node;
  while (!words.empty()) {
    const std::string option = words.Take();
    if (option == "--dir") {
      sandbox.directory = words.Take();
    } else if (option == "--daemon") {
      sandbox.daemon = words.Take();
    } else if (option == "--options") {
      node.daemon_options = ReadFile(words.Take());
    } else if (option == "--zema") {
      node.realization_options = ReadFile(words.Take());
    } else if (option == "--datastore") {
      sandbox.datastore = words.Take();
    } else if (option == "--clock-factor") {
      // Set before the clock is read for the first time; the daemon inherits the variable.
      ::setenv(zem::kClockFactorVariable, words.Take().c_str(), 1);
    } else if (option == "--launcher") {
      std::istringstream launcher(words.Take());
      for (std::string word; launcher >> word;) node.launcher.push_back(word);
    } else if (option == "--issue") {
      node.issue = words.Take();
    } else if (option == "--no-daemon") {
      node.start_daemon = false;
    } else if (option == "--follow") {
      node.follow_log = true;
    } else {
      std::fputs(kUsage, stderr);
      return kUsageError;
    }
  }
  if (::mkdir(sandbox.directory.c_str(), 0700) < 0 && errno != EEXIST) {
    throw std::runtime_error(sandbox.directory + ": " + std::strerror(errno));
  }
  return zem::sim::RunInSandbox(sandbox, [&node] { return zem::sim::Node(node).Run(); });
}

// A node in a folder of its own; both end with this object.
class ChildNode {
 public:
  ChildNode(Words words, const char* program) {
    if (::mkdtemp(directory_) == nullptr)
      throw std::runtime_error(std::string(directory_) + ": " + std::strerror(errno));
    words.all.insert(words.all.end(), {"--dir", directory_});
    process_ = ::fork();
    if (process_ < 0) throw std::runtime_error(std::strerror(errno));
    if (process_ > 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    int code = 1;
    try {
      code = RunNode(words, program);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "zem-node: %s\n", error.what());
    }
    ::_exit(code);
  }
  ~ChildNode() {
    if (!stopped_) ::kill(process_, SIGTERM);
    int status = 0;
    ::waitpid(process_, &status, 0);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  ChildNode(const ChildNode&) = delete;
  ChildNode& operator=(const ChildNode&) = delete;

  void Stop(ControlClient& client) {
    client.Execute("stop");
    stopped_ = true;
  }
  std::string control() const { return std::string(directory_) + "/control"; }

 private:
  char directory_[32] = "/tmp/zem-check.XXXXXX";
  pid_t process_ = -1;
  bool stopped_ = false;
};

// Runs a scenario on a new node, or on two that share the VMs' folders.
int Check(Words words, const char* program) {
  const std::string file = words.Take();
  std::ifstream lines(file);
  if (!lines) throw std::runtime_error(file + ": " + std::strerror(errno));
  char datastore[] = "/tmp/zem-datastore.XXXXXX";
  const bool two = std::erase(words.all, "--second") != 0;
  if (two) {
    if (::mkdtemp(datastore) == nullptr) throw std::runtime_error(std::strerror(errno));
    words.all.insert(words.all.end(), {"--datastore", datastore});
  }
  bool held = false;
  {
    ChildNode node(words, program);
    std::unique_ptr<ChildNode> second = two ? std::make_unique<ChildNode>(words, program) : nullptr;
    try {
      ControlClient client(node.control(), kNodeStart);
      std::unique_ptr<ControlClient> second_client;
      if (second) second_client = std::make_unique<ControlClient>(second->control(), kNodeStart);
      held = zem::sim::Scenario(client, std::cout, second_client.get()).Run(lines, file);
      if (held) node.Stop(client);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "zem-node: %s\n", error.what());
    }
  }
  std::error_code ignored;
  if (two) std::filesystem::remove_all(datastore, ignored);
  return held ? 0 : 1;
}

std::string Directory(Words* words) {
  if (!words->empty() && words->all[words->next] == "--dir") {
    words->Take();
    return words->Take();
  }
  return kDefaultDirectory;
}

// Quotes the words again that the shell has already split.
std::string Join(Words words) {
  std::string line;
  while (!words.empty()) {
    const std::string word = words.Take();
    if (!line.empty()) line += " ";
    if (!word.empty() && word.find_first_of(" \t'\"\\") == std::string::npos) {
      line += word;
      continue;
    }
    line += "\"";
    for (const char c : word) {
      if (c == '"' || c == '\\') line.push_back('\\');
      line.push_back(c);
    }
    line += "\"";
  }
  return line;
}

int Control(Words words) {
  const std::string directory = Directory(&words);
  if (words.empty()) {
    std::fputs(kUsage, stderr);
    return kUsageError;
  }
  const bool json = words.all[words.next] == "--json";
  if (json) words.Take();
  ControlClient node(directory + "/control");
  const std::string answer = node.Execute(Join(words));
  const zem::sim::Json parsed{cJSON_Parse(answer.c_str())};
  // A result that is text is printed without JSON quoting.
  const char* const text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(parsed.get(), "result"));
  std::puts(text != nullptr && !json ? text : answer.c_str());
  return parsed && cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(parsed.get(), "ok")) ? 0 : 1;
}

int RunScenario(Words words) {
  const std::string directory = Directory(&words);
  const std::string file = words.Take();
  std::ifstream lines(file);
  if (!lines) throw std::runtime_error(file + ": " + std::strerror(errno));
  ControlClient node(directory + "/control", kNodeStart);
  return zem::sim::Scenario(node, std::cout).Run(lines, file) ? 0 : 1;
}

// Started by a node: the process of one of its alarm clients.
int AlarmPeer(Words words) {
  zem::sim::PeerSettings settings;
  const std::string error = zem::sim::PeerSettings::FromWords(
      {words.all.begin() + static_cast<ptrdiff_t>(words.next), words.all.end()}, &settings);
  if (!error.empty()) throw std::runtime_error(error);
  return zem::sim::RunAlarmPeer(settings);
}

}  // namespace

int main(int argc, char** argv) {
  Words words{{argv + 1, argv + argc}};
  try {
    const std::string verb = words.Take();
    if (verb == "run") return RunNode(words, argv[0]);
    if (verb == "check") return Check(words, argv[0]);
    if (verb == "ctl") return Control(words);
    if (verb == "scenario") return RunScenario(words);
    if (verb == "alarm-peer") return AlarmPeer(words);
    std::fputs(kUsage, verb == "help" || verb == "--help" ? stdout : stderr);
    return verb == "help" || verb == "--help" ? 0 : kUsageError;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zem-node: %s\n", error.what());
    return 1;
  }
}
