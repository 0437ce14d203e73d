// How long operators wait for an answer while the daemon has all hands full: interfaces are attached and
// detached, and guests open and close connections, without a pause.  The commands are asked on the daemon's
// command socket, a connection each, as the operators' program does.
//
// bench_asked [SECONDS]

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/build_folder.h"
#include "sim/scenario/control_client.h"
#include "sim/scenario/node_process.h"

namespace {

using zem::sim::At;
using zem::sim::ControlClient;
using zem::sim::Json;
using zem::sim::NodeProcess;
using zem::sim::NumberAt;
using zem::sim::TextAt;

constexpr int kSeconds = 20;
constexpr int kVms = 200;
constexpr int kGuests = 8;
constexpr double kLimitMs = 50;
constexpr auto kPatience = std::chrono::seconds(60);

// The ones whose answers are the largest, and the one that is asked first.
constexpr std::array kCommands = {"status", "verticals", "switches", "ports",  "vifs",
                                  "tasks",  "queues",    "guests",   "alarms", "captures",
                                  "store",  "inventory", "why",      "metrics"};

constexpr const char* kHost =
    "manager send --timeout 60 SwitchingVertical HostConfigMsg 'id: \"c0000000-0000-4000-8000-000000000001\" "
    "revision: \"1\" transport_node_id: \"5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01\" phase: PHASE2_COMBINED "
    "host_switches { id: \"502e6b1a-77c0-41aa-9d11-000000000001\" name: \"ks-1\" type: 2 mtu: 1700 "
    "transport_zone_id: \"zone-1\" pnic { device_name: \"vmnic1\" uplink_name: \"u1\" } profiles { "
    "uplink_profile { active_uplink { name: \"u1\" } } } overlay: true }'";
constexpr const char* kEngine =
    "file/write /etc/orlane/zem-tarvik/zem-ctxteng.xml "
    "\"<config><ctxteng><metrics><numWorkerThreads>4</numWorkerThreads><maxEventsPerVm>50</maxEventsPerVm>"
    "<listenPort>48655</listenPort></metrics><clients><ZemiClient>true</ZemiClient></clients></ctxteng>"
    "</config>\"";

void SetUp(NodeProcess& node) {
  node.Do(kEngine);
  for (int i = 1; i <= kGuests; ++i) {
    const std::string number = std::to_string(i);
    const std::string uuid = "\"50 2a 11 22 33 44 55 66-77 88 99 aa bb cc dd 0" + number + "\"";
    node.Do("fw filter " + uuid + " 500" + number);
    node.Do("guest add g" + number + " --os windows --uuid " + uuid);
    node.Do("guest user g" + number + " ann --id S-1-5-21-7-1001 --domain shop");
    node.Do("guest logon g" + number + " ann --session 1");
    node.Do("guest proc g" + number + " 101 --user ann --exe C:\\\\web.exe");
  }
  node.Do("daemon/start");
  node.Do("log/wait \"zemaLum.py is ready\" 60");
  node.Do("log/wait \"Received client registration ACK from MPA\" 60");
  node.Do("log/wait \"All clients initialized successfully\" 60");
  const Json answer = node.Do(kHost);
  if (NumberAt(answer.get(), "answer.host_config.error_code") != 0)
    throw std::runtime_error("the host was not configured");
  node.Do("manager vif/switch web zone-1");
  node.Await("host-management", kPatience,
             [](const cJSON* state) { return cJSON_IsTrue(At(state, "connected")) != 0; });
  node.Do("vm create --count " + std::to_string(kVms) + " vm eth0::web");
  // The guests' events come while the manager wants reports of flows.
  const std::string brokers = TextAt(node.Do("kafka start 1").get(), "tls");
  node.Do("profile agent " + brokers);
  node.Do("profile flow on --interval 1");
  node.Await("guest show", kPatience, [&node](const cJSON* guests) {
    node.Do("guest tick");
    return NumberAt(cJSON_GetArrayItem(guests, 0), "mask") != 0;
  });
}

// Repeats its commands until the end; each storm has a connection of its own to the node.
class Storm {
 public:
  Storm(const NodeProcess& node, std::vector<std::string> commands)
      : client_(node.directory() + "/control", kPatience),
        commands_(std::move(commands)),
        thread_([this] { Run(); }) {}
  ~Storm() { End(); }
  Storm(const Storm&) = delete;
  Storm& operator=(const Storm&) = delete;

  /// Returns how many of its commands were done.
  int End() {
    ended_ = true;
    if (thread_.joinable()) thread_.join();
    return done_;
  }
  const std::string& error() const { return error_; }

 private:
  void Run() {
    for (size_t i = 0; !ended_; i = (i + 1) % commands_.size()) {
      const std::string answer = client_.Execute(commands_[i]);
      if (answer.find("\"ok\":true") == std::string::npos && error_.empty()) error_ = answer.substr(0, 300);
      ++done_;
    }
  }

  ControlClient client_;
  const std::vector<std::string> commands_;
  std::atomic<bool> ended_{false};
  std::atomic<int> done_{0};
  std::string error_;  // the thread's until it has ended
  std::thread thread_;
};

struct Row {
  std::vector<double> ms;
  int refused = 0;
  double At(double share) const {
    return ms.empty()
               ? 0
               : ms[std::min(ms.size() - 1, static_cast<size_t>(share * static_cast<double>(ms.size())))];
  }
};

// The figures of the program's own clock, so they have the start of a process in them, as the operator has.
std::vector<Row> Ask(NodeProcess& node, std::chrono::seconds time) {
  std::vector<Row> rows(kCommands.size());
  const auto end = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < end) {
    for (size_t i = 0; i < kCommands.size(); ++i) {
      const Json answer = node.Do(std::string("tarvikctl --timeout 5000 ") + kCommands[i]);
      rows[i].ms.push_back(NumberAt(answer.get(), "ms"));
      if (NumberAt(answer.get(), "code") != 0) {
        if (rows[i].refused++ == 0)
          std::printf("# %s: %s%s\n", kCommands[i], TextAt(answer.get(), "text").c_str(),
                      TextAt(answer.get(), "errors").c_str());
      }
    }
  }
  for (Row& row : rows) std::sort(row.ms.begin(), row.ms.end());
  return rows;
}

double GuestEvents(NodeProcess& node) {
  constexpr std::string_view kMetric = "\nzem_tarvik_guest_events_total ";
  const std::string text = TextAt(node.Do("tarvikctl metrics").get(), "text");
  const size_t at = text.find(kMetric);
  return at == std::string::npos ? 0 : std::strtod(text.c_str() + at + kMetric.size(), nullptr);
}

// What the command socket's thread itself took for its longest command: the rest of a wait is the machine's.
double LongestCommandMs(NodeProcess& node) {
  const Json answer = node.Do("tarvikctl tasks --json");
  const cJSON* task = nullptr;
  cJSON_ArrayForEach(task, At(answer.get(), "json.tasks")) {
    if (TextAt(task, "name") == "commands") return NumberAt(task, "longest_us") / 1e3;
  }
  return 0;
}

void Tell(const char* phase, const std::vector<Row>& rows) {
  for (size_t i = 0; i < rows.size(); ++i) {
    const double p99 = rows[i].At(0.99);
    std::printf("# %s %s: %zu asked, %d with another code than 0, ms median %.0f p99 %.0f most %.0f\n", phase,
                kCommands[i], rows[i].ms.size(), rows[i].refused, rows[i].At(0.5), p99, rows[i].ms.back());
    std::printf("asked %s-%s p99_ms ours=%.1f peer=%.1f ratio=%.2f\n", phase, kCommands[i], p99, kLimitMs,
                kLimitMs / std::max(1.0, p99));
  }
}

int Run(int seconds) {
  NodeProcess node(zem::bench::BuildFolder() + "/sim/node/zem-node",
                   {"--no-daemon", "--options", ZEM_BENCH_FILES "/asked.xml", "--zema",
                    std::string(ZEM_BENCH_FILES) + "/../restart/restart.json"});
  SetUp(node);
  const std::chrono::seconds time(seconds);
  node.Await("tarvikctl status --brief", kPatience,
             [](const cJSON* answer) { return NumberAt(answer, "code") == 0; });
  Tell("idle", Ask(node, std::chrono::seconds(std::max(2, seconds / 4))));
  std::vector<std::string> storms;
  for (int i = 1; i <= kGuests; ++i) {
    storms.push_back("guest storm g" + std::to_string(i) +
                     " --pid 101 --from 10.0.0.1 --to 10.0.0.2@80 --count 2000");
  }
  const double events = GuestEvents(node);
  Storm guests(node, storms);
  Storm vifs(node, {"vm power-on vm-*", "vm power-off vm-*"});
  Tell("load", Ask(node, time));
  const int operations = vifs.End() * kVms;
  guests.End();
  std::printf("# longest step of the command socket's thread: %.1f ms\n", LongestCommandMs(node));
  std::printf("# meanwhile: %d operations on interfaces, %.0f events of guests\n", operations,
              GuestEvents(node) - events);
  for (const Storm* const storm : {&guests, &vifs}) {
    if (!storm->error().empty()) throw std::runtime_error(storm->error());
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : kSeconds;
  if (seconds < 1) {
    std::fputs("usage: bench_asked [SECONDS]\n", stderr);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    return Run(seconds);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_asked: %s\n", error.what());
    return 1;
  }
}
