// zem-node: runs a simulated node, sends it commands, runs scenarios on it.

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
#include "platform/core/uuid.h"
#include "sim/alarmpeers/peer_program.h"
#include "sim/control/invented_id.h"
#include "sim/control/json.h"
#include "sim/data/data_folder.h"
#include "sim/fleet/fleet_program.h"
#include "sim/node/interruption.h"
#include "sim/node/node.h"
#include "sim/replay/border_table.h"
#include "sim/replay/expected_differences.h"
#include "sim/replay/recorder.h"
#include "sim/replay/recording.h"
#include "sim/replay/replayer.h"
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
    "       zem-node record OUT FILE [OPTIONS]  the same, and writes down what was done to the node and what "
    "its\n"
    "                                           daemon did at its borders\n"
    "       zem-node replay FILE [--daemon FILE] [--clock-factor N] [--expected NOTES]\n"
    "                                           does it to another daemon and prints the differences, but "
    "not those "
    "that\n"
    "                                           NOTES announce in blocks that begin with ```differences\n"
    "       zem-node fleet [HOSTS] [STORY ...] [--curve FILE]\n"
    "                                           many hosts before one manager, and what they put on it\n"
    "options of run, check and record:\n"
    "  --dir DIR        the node's folder: control socket and daemon output (/tmp/zem-node)\n"
    "  --daemon FILE    the daemon's program (that of the same build, or the installed one)\n"
    "  --options FILE   the daemon's XML options\n"
    "  --zema FILE      the realization's JSON options\n"
    "  --datastore FOLDER  where VMs are made, for several nodes that see the same (the node's own)\n"
    "  --second         check alone: another node like it, which sees the same VMs' folders\n"
    "  --launcher WORDS a program that becomes the daemon, whose path is put behind the words\n"
    "  --issue TEXT     the identity file's text; \"\" leaves it away\n"
    "  --seed TEXT      names that peers make up follow from it (random; record and replay choose it)\n"
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

// A program of the daemon's package: in the folder of this one, or where the build has it.
std::string ProgramBeside(const char* program, const std::string& name, const std::string& built) {
  std::string path(4096, '\0');
  const ssize_t size = ::readlink("/proc/self/exe", path.data(), path.size());
  path = size > 0 ? path.substr(0, static_cast<size_t>(size)) : program;
  const std::string here = path.substr(0, path.rfind('/'));
  for (const std::string& candidate : {here + "/" + name, here + "/../../" + built,
                                       "/opt/orlane/zem-tarvik/bin/" + name, "/usr/bin/" + name}) {
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return here + "/" + name;
}

int RunNode(Words words, const char* program) {
  const zem::sim::DataFolder& data = zem::sim::DataFolder::Get();
  zem::sim::SandboxOptions sandbox{
      kDefaultDirectory, ProgramBeside(program, "zem-tarvik", "agent/zem-tarvik"), data.host, data.libraries};
  sandbox.agent_scripts = data.agent_scripts;
  zem::sim::NodeOptions node;
  node.tarvikctl = ProgramBeside(program, "zem-tarvikctl", "ctl/zem-tarvikctl");
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
    } else if (option == "--seed") {
      zem::sim::SeedInventions(words.Take());
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

// A node in a folder of its own; both end with this object, or when this program is interrupted.
class ChildNode {
 public:
  ChildNode(Words words, const char* program) {
    words.all.insert(words.all.end(), {"--dir", folder_.path()});
    zem::sim::Interruption& interruption = zem::sim::Interruption::Get();
    const zem::sim::Interruption::Held held = interruption.Hold();
    process_ = ::fork();
    if (process_ < 0) throw std::runtime_error(std::strerror(errno));
    if (process_ > 0) {
      ending_ = interruption.Add(held, [process = process_] { End(process); });
      return;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    zem::sim::Interruption::LetPass();
    int code = 1;
    try {
      code = RunNode(words, program);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "zem-node: %s\n", error.what());
    }
    ::_exit(code);
  }
  ~ChildNode() {
    if (stopped_) {
      int status = 0;
      ::waitpid(process_, &status, 0);
    } else {
      End(process_);
    }
    ending_.reset();
  }
  ChildNode(const ChildNode&) = delete;
  ChildNode& operator=(const ChildNode&) = delete;

  void Stop(ControlClient& client) {
    client.Execute("stop");
    stopped_ = true;
  }
  std::string control() const { return folder_.path() + "/control"; }

 private:
  static void End(pid_t process) {
    ::kill(process, SIGTERM);
    int status = 0;
    ::waitpid(process, &status, 0);
  }

  const zem::sim::ScratchFolder folder_{"zem-check"};
  pid_t process_ = -1;
  bool stopped_ = false;
  std::shared_ptr<void> ending_;
};

// Runs a scenario on a new node, or on two that share the VMs' folders.
int Check(Words words, const char* program) {
  const std::string file = words.Take();
  std::ifstream lines(file);
  if (!lines) throw std::runtime_error(file + ": " + std::strerror(errno));
  const bool two = std::erase(words.all, "--second") != 0;
  std::unique_ptr<zem::sim::ScratchFolder> datastore;
  if (two) {
    datastore = std::make_unique<zem::sim::ScratchFolder>("zem-datastore");
    words.all.insert(words.all.end(), {"--datastore", datastore->path()});
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
  return held ? 0 : 1;
}

// A program that can be started; refused here, since a node without its daemon looks like a daemon that does
// nothing.
std::string ProgramAt(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error) || ::access(path.c_str(), X_OK) != 0)
    throw std::runtime_error("--daemon: " + path + " is no program");
  return path;
}

int FactorOf(const std::string& text) {
  const int factor = text.empty() ? 1 : std::atoi(text.c_str());
  if (factor < 1 || factor > 100) throw std::runtime_error("no clock factor: " + text);
  return factor;
}

// A node that has everything from the recording but its events.
Words WordsOf(const zem::sim::Recording& recording, const zem::sim::ScratchFolder& folder) {
  Words words;
  words.all = {"--no-daemon", "--seed", recording.seed, "--issue", recording.issue};
  if (!recording.daemon_options.empty())
    words.all.insert(words.all.end(), {"--options", folder.Write("options.xml", recording.daemon_options)});
  if (!recording.realization_options.empty())
    words.all.insert(words.all.end(), {"--zema", folder.Write("zema.json", recording.realization_options)});
  return words;
}

// The next word of an option.
std::string Value(Words& words, const std::string& option) {
  if (words.empty()) throw std::invalid_argument(option + " needs a value");
  return words.Take();
}

// Begins as the recorded day did.
void BeginDay(const zem::sim::Recording& recording, ControlClient& client) {
  zem::sim::KeepBorders(client);
  if (recording.daemon_started) client.Execute("daemon/start");
}

int Record(Words words, const char* program) {
  const std::string out = words.Take();
  const std::string file = words.Take();
  std::ifstream lines(file);
  if (!lines) throw std::runtime_error(file + ": " + std::strerror(errno));
  zem::sim::Recording recording;
  recording.issue = zem::sim::NodeOptions().issue;
  recording.seed = zem::RandomUuidText();
  Words others;
  while (!words.empty()) {
    const std::string option = words.Take();
    if (option == "--options") {
      recording.daemon_options = ReadFile(Value(words, option));
    } else if (option == "--zema") {
      recording.realization_options = ReadFile(Value(words, option));
    } else if (option == "--issue") {
      recording.issue = Value(words, option);
    } else if (option == "--no-daemon") {
      recording.daemon_started = false;
    } else if (option == "--clock-factor") {
      recording.clock_factor = FactorOf(Value(words, option));
    } else if (option == "--daemon") {
      others.all.insert(others.all.end(), {option, ProgramAt(Value(words, option))});
    } else if (option == "--follow") {
      others.all.push_back(option);
    } else {
      throw std::invalid_argument("a recording has no " + option);
    }
  }
  zem::sim::Recording::Draft draft(out);
  const auto no_draft = zem::sim::Interruption::Get().Add([path = draft.path()] { ::unlink(path.c_str()); });
  const zem::sim::ScratchFolder folder("zem-record");
  Words node_words = WordsOf(recording, folder);
  others.all.insert(others.all.end(), {"--clock-factor", std::to_string(recording.clock_factor)});
  node_words.all.insert(node_words.all.end(), others.all.begin(), others.all.end());
  ChildNode node(node_words, program);
  ControlClient client(node.control(), kNodeStart);
  ControlClient looks(node.control());
  BeginDay(recording, looks);
  zem::sim::Recorder recorder(client, looks, std::move(recording));
  const bool held = zem::sim::Scenario(client, std::cout).Run(lines, file);
  draft.Finish(recorder.Finish());
  if (held) node.Stop(client);
  return held ? 0 : 1;
}

int Replay(Words words, const char* program) {
  const std::string file = words.Take();
  const zem::sim::Recording recording = zem::sim::Recording::Read(file);
  zem::sim::ExpectedDifferences expected;
  int factor = recording.clock_factor;
  const zem::sim::ScratchFolder folder("zem-replay");
  Words node_words = WordsOf(recording, folder);
  while (!words.empty()) {
    const std::string option = words.Take();
    if (option == "--expected") {
      expected = zem::sim::ExpectedDifferences::Read(Value(words, option));
    } else if (option == "--clock-factor") {
      factor = FactorOf(Value(words, option));
    } else if (option == "--daemon") {
      node_words.all.insert(node_words.all.end(), {option, ProgramAt(Value(words, option))});
    } else if (option == "--follow") {
      node_words.all.push_back(option);
    } else {
      throw std::invalid_argument("a replay has no " + option);
    }
  }
  node_words.all.insert(node_words.all.end(), {"--clock-factor", std::to_string(factor)});
  ChildNode node(node_words, program);
  ControlClient client(node.control(), kNodeStart);
  BeginDay(recording, client);
  const std::vector<zem::sim::Difference> differences = zem::sim::Replayer(recording, client, factor).Run();
  node.Stop(client);
  const size_t unexpected = zem::sim::Judge(differences, std::move(expected), std::cout);
  std::cout << (unexpected == 0 ? std::string("no difference") : std::to_string(unexpected) + " differences")
            << "\n";
  return unexpected == 0 ? 0 : 1;
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

int Fleet(const Words& words) {
  try {
    zem::fleet::FleetOrder order = zem::fleet::ReadFleetOrder({words.all.begin() + 1, words.all.end()});
    order.over_time = true;
    zem::fleet::RunFleet(order, std::cout);
    return 0;
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "zem-node: %s\n%s", error.what(), kUsage);
    return kUsageError;
  }
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
    if (verb == "record") return Record(words, argv[0]);
    if (verb == "replay") return Replay(words, argv[0]);
    if (verb == "fleet") return Fleet(words);
    if (verb == "ctl") return Control(words);
    if (verb == "scenario") return RunScenario(words);
    if (verb == "alarm-peer") return AlarmPeer(words);
    std::fputs(kUsage, verb == "help" || verb == "--help" ? stdout : stderr);
    return verb == "help" || verb == "--help" ? 0 : kUsageError;
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "zem-node: %s\n%s", error.what(), kUsage);
    return kUsageError;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zem-node: %s\n", error.what());
    return 1;
  }
}
