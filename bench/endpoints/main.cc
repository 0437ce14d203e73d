// The manager's questions and requests about tunnel endpoints, against a client that only sends the host's
// script and library the same calls.  Ends with lines "endpoints CASE METRIC ours=NUMBER peer=NUMBER
// ratio=NUMBER"; a ratio of 1 means that the agent adds nothing.

#include <dlfcn.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>

#include "app/zema/endpoint/vtep_ip_fetching_task.h"
#include "app/zema/endpoint/vtep_request_tasks.h"
#include "app/zema/hostlib/endpoint_library.h"
#include "app/zema/manager/mpa_message_sender.h"
#include "app/zema/proxy/lum_handler.h"
#include "app/zema/state/realization_options.h"
#include "app/zema/workers/task_queues.h"
#include "bench/logical-switches/bare_client.h"
#include "framework/log/logger.h"
#include "framework/node/host_identity.h"
#include "framework/process/shutdown_pipe.h"
#include "sim/host/host_state.h"
#include "sim/sandbox/sandbox.h"
#include "sim/switch/library_folder.h"
#include "sim/switch/sim_state.h"

namespace zem::bench {
namespace {

namespace switching = orlane::zem::switching;

// Rounds of ours and the peer alternate; each figure is the best.
constexpr int kPasses = 4;
constexpr int kRounds = 40;
constexpr int kLateRounds = 10;
constexpr int kEndpoints = 16;
/// Number of questions before an address is available.
constexpr int kPolls = 2;
constexpr const char* kDvs = "50 2e 6b 1a 77 c0 41 aa-9d 11 00 00 00 00 00 01";
constexpr const char* kName = "ks-1";

std::string Device(int number) { return "knl" + std::to_string(10 + number); }

std::string ApplyCommand(bool dynamic) {
  std::string command =
      "applyVtep(uuid=" + std::string(kDvs) +
      "|defaultGateway=|subnetMask=|ipv6DefaultGateway=|ipv6PrefixLength=|vlan=150|mtu=1700|" +
      "dhcp=" + (dynamic ? "1" : "0") + "|ipv6Dhcp=0|ipv6AutoConf=0|upgrade=false|vtep=";
  for (int i = 0; i < kEndpoints; ++i) {
    command +=
        (i == 0 ? "" : ",") + Device(i) + "~" + (dynamic ? "" : "172.16.1." + std::to_string(10 + i)) + "~~~";
  }
  return command + ")";
}

Call Ask(int endpoint) {
  return {static_cast<uint32_t>(zema::LumOperation::kReadEndpointAddresses),
          "vtepDeviceId=" + Device(endpoint)};
}

Call Text(const std::string& command) {
  return {static_cast<uint32_t>(zema::LumOperation::kTextCommand), command};
}

// Stands in for the manager and only counts.
class Manager final : public zema::MpaMessageSender {
 public:
  using Text = const std::string&;
  bool SendHostConfigAckMsg(const std::string&, const switching::HostConfigAckMsg&) override { return true; }
  bool HostConfigReply(Text, Text, const switching::HostConfigMsg&) override { return true; }
  bool TnMmodeConfigReply(Text, Text, const switching::MaintenanceModeConfigResultMsg&) override {
    return true;
  }
  bool VtepRecoveryReply(Text, Text, const switching::VTEPRecoveryResultMsg&) override { return true; }
  bool VtepAdminStateReply(Text, Text, const switching::VTEPAdminStateMgmtResultMsg& reply) override {
    changed += reply.result() == 0 ? 1 : 0;
    return true;
  }
  bool LogicalSwitchReply(Text, const switching::LogicalSwitchMsg&) override { return true; }
  bool LogicalSwitchFullSyncReply(Text, Text, const switching::LogicalSwitchBulkMsg&) override {
    return true;
  }
  bool SendTransportNodeEventMsg(Text, const switching::TransportNodeEventMsg& event) override {
    addresses += event.dhcp_ip_acquired_event().vtep_size();
    return true;
  }
  bool SendRestoreReplyMsg(Text, const switching::ChecksumMsg&) override { return true; }
  bool HostProfileReply(Text, Text, const switching::HostProfileMsg&) override { return true; }
  bool HostSwitchMigrationToKlnReply(Text, Text,
                                     const switching::TransportNodeHostSwitchesMigrationMsg&) override {
    return true;
  }

  int changed = 0;
  int addresses = 0;
};

// In seconds; a sandbox's body passes them on in shared memory.
struct Figures {
  double ours = std::numeric_limits<double>::max();
  double peer = std::numeric_limits<double>::max();
};
struct Results {
  Figures sync;
  Figures late;
  Figures state;
};

double Seconds(const std::function<void()>& work) {
  const auto begun = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
}

void Require(bool condition, const std::string& what) {
  if (!condition) throw std::runtime_error(what);
}

// Runs the agent's tasks without the waits between them, which are a choice of the product.
class Agent final : public zema::TaskQueues {
 public:
  Agent(zema::LumHandler& lum, zema::EndpointLibrary& library) {
    host_.SetHostId("tn");
    zema::RealizationOptions options;
    options.vtep_dhcp_ip_fetching_timeout = 0;
    options_.Replace(std::move(options));
    context_ = std::make_shared<zema::EndpointContext>(lum, library, host_, *this, options_, &manager,
                                                       [](Duration) { return true; });
  }

  bool AddTask(zema::Worker, std::unique_ptr<Runnable> task) override {
    queue_.push_back(std::move(task));
    return true;
  }
  void ClearTasks(zema::Worker) override { queue_.clear(); }
  bool Has(zema::Worker) override { return true; }

  void Sync() {
    switching::VtepIPSyncMsg request;
    auto* const entry = request.add_host_switch_vtep();
    entry->set_address_type("DHCP");
    for (int i = 0; i < kEndpoints; ++i) entry->add_device_name(Device(i));
    zema::VtepIPSync(context_, "reply", request);
    RunQueue();
  }
  void Fetch() {
    std::vector<std::string> devices;
    for (int i = 0; i < kEndpoints; ++i) devices.push_back(Device(i));
    queue_.push_back(std::make_unique<zema::VtepIpFetchingTask>(
        context_, zema::AddressFetchingTask::Event{"reply", "id", "tn", "1"}, devices,
        zema::AddressFetchingTask::Tries{20, false}));
    RunQueue();
  }
  void SetState(int endpoint, bool up) {
    switching::VTEPAdminStateMgmtRequestMsg request;
    request.set_device_name(Device(endpoint));
    request.set_switch_id(kDvs);
    request.set_request_id("r1");
    request.set_admin_state(up ? 0 : 1);
    zema::VtepAdminStateTask(context_, "correlation", "reply", request).Run();
  }

  Manager manager;

 private:
  void RunQueue() {
    for (size_t i = 0; i < queue_.size(); ++i) {
      const auto task = std::move(queue_[i]);  // running it may append another task
      task->Run();
    }
    queue_.clear();
  }

  HostIdentity host_;
  zema::OptionsStore options_;
  std::shared_ptr<zema::EndpointContext> context_;
  std::vector<std::unique_ptr<Runnable>> queue_;
};

void TakeBetter(double* best, double seconds) { *best = std::min(*best, seconds); }

void MeasureOurs(const zema::LumSettings& settings, const sim::HostState& host, Results* results) {
  zema::LumHandler lum(settings);
  Require(lum.SetUp("user", "") == 0, "the management proxy does not start");
  sim::SwitchState state;
  Require(state.MakeSwitch({kDvs, kName, "KLN", {"z1"}, {"u1"}}), "the switch was not made");
  zema::EndpointLibrary library(sim::LibraryFolder::Built() + "/libvdl2kln.so");
  std::string error;
  Require(library.Open(&error), error);
  const auto apply = [&](bool dynamic) {
    std::string reply;
    Require(lum.InvokeCommand(ApplyCommand(dynamic), "", &reply) == 0 && reply.starts_with("ok"), reply);
  };
  apply(true);
  Agent agent(lum, library);
  for (int i = 0; i < kRounds; ++i) TakeBetter(&results->sync.ours, Seconds([&] { agent.Sync(); }));
  Require(agent.manager.addresses == kRounds * kEndpoints, "an address was not told");
  for (int i = 0; i < kRounds; ++i) {
    for (const bool up : {false, true}) {
      TakeBetter(&results->state.ours, Seconds([&] { agent.SetState(i % kEndpoints, up); }));
    }
  }
  Require(agent.manager.changed == 2 * kRounds, "a state was not changed");
  host.Set("dhcp.polls", std::to_string(kPolls));
  agent.manager.addresses = 0;
  for (int i = 0; i < kLateRounds; ++i) {
    apply(false);
    apply(true);
    TakeBetter(&results->late.ours, Seconds([&] { agent.Fetch(); }));
  }
  Require(agent.manager.addresses == kLateRounds * kEndpoints, "a late address was not told");
  host.Set("dhcp.polls", "0");
}

void MeasurePeer(const zema::LumSettings& settings, const sim::HostState& host, Results* results) {
  BareClient bare(settings.script, settings.socket);
  const std::string file = sim::LibraryFolder::Built() + "/libvdl2kln.so";
  void* const library = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  Require(library != nullptr, "the endpoint library is not there");
  const auto set_state =
      reinterpret_cast<decltype(&::VDL2KNL_SetKnlnicState)>(::dlsym(library, "VDL2KNL_SetKnlnicState"));
  Require(set_state != nullptr, "the endpoint library lacks a function");
  std::vector<Call> all;
  for (int i = 0; i < kEndpoints; ++i) all.push_back(Ask(i));
  for (int i = 0; i < kRounds; ++i) TakeBetter(&results->sync.peer, bare.Send(all));
  const std::vector<Call> name = {Text("queryDvsNames(" + std::string(kDvs) + ")")};
  for (int i = 0; i < kRounds; ++i) {
    for (const uint32_t up : {0U, 1U}) {
      const std::string device = Device(i % kEndpoints);
      TakeBetter(&results->state.peer, Seconds([&] {
        bare.Send(name);
        Require(set_state(kName, device.c_str(), 0, static_cast<int>(up)) == 0, "the state stays");
      }));
    }
  }
  host.Set("dhcp.polls", std::to_string(kPolls));
  std::vector<Call> late;
  for (int i = 0; i <= kPolls; ++i) late.insert(late.end(), all.begin(), all.end());
  for (int i = 0; i < kLateRounds; ++i) {
    bare.Send({Text(ApplyCommand(false)), Text(ApplyCommand(true))});
    TakeBetter(&results->late.peer, bare.Send(late));
  }
  host.Set("dhcp.polls", "0");
  ::dlclose(library);
}

int Measure(Results* results) {
  try {
    std::filesystem::create_symlink(std::string(sim::kNodeDirectory) + "/ps", "/usr/local/bin/ps");
    ::setenv("PATH", "/usr/local/bin:/usr/bin:/bin", 1);
    Logger::logLevel = static_cast<uint32_t>(kLogInfo);
    // There is no syslog here; log lines are formatted and discarded.
    Logger::SetEmitter([](int, const char*) {});
    if (!Tarvik::OpenShutdownPipe()) return 1;
    zema::LumSettings settings;
    settings.script = std::string(sim::kNodeDirectory) + "/zemaLum.py";
    settings.kill_pause = settings.pid_pause = settings.ready_pause = std::chrono::milliseconds(20);
    settings.host_version = "7.0.3";
    const sim::HostState host(sim::HostState::DefaultRoot());
    MeasureOurs(settings, host, results);
    MeasurePeer(settings, host, results);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "endpoints: %s\n", error.what());
    return 1;
  }
}

void Print(const char* name, const char* metric, const Figures& figures, int count) {
  const double ours = figures.ours * 1e6 / count;
  const double peer = figures.peer * 1e6 / count;
  std::printf("endpoints %s %s ours=%.1f peer=%.1f ratio=%.2f\n", name, metric, ours, peer, peer / ours);
}

int Main() {
  std::string pattern = std::filesystem::temp_directory_path() / "zem-bench-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) return 1;
  const std::filesystem::path folder = pattern;
  for (const auto& file : std::filesystem::directory_iterator(ZEM_SOURCE "/sim/host")) {
    if (file.is_regular_file()) std::filesystem::copy(file.path(), folder / file.path().filename());
  }
  void* const shared =
      ::mmap(nullptr, sizeof(Results), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  int code = 1;
  if (shared != MAP_FAILED) {
    auto* const results = new (shared) Results;
    code = 0;
    for (int pass = 0; pass < kPasses && code == 0; ++pass) {
      std::fflush(stdout);  // a sandbox begins with a copy of this process
      code = sim::RunInSandbox({folder, "/bin/true", "", sim::LibraryFolder::Built()},
                               [&] { return Measure(results); });
    }
    if (code == 0) {
      Print("sync-16", "us_per_address", results->sync, kEndpoints);
      Print("late-16", "us_per_question", results->late, kEndpoints * (kPolls + 1));
      Print("admin-state", "us_per_request", results->state, 1);
    }
  }
  std::filesystem::remove_all(folder);
  return code;
}

}  // namespace
}  // namespace zem::bench

int main() { return zem::bench::Main(); }
