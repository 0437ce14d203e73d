#include "bench/kill/vif_stream.h"

#include <cjson/cJSON.h>

#include <stdexcept>

namespace zem::bench {
namespace {

using sim::Json;
using sim::NumberAt;

constexpr auto kPatience = std::chrono::seconds(60);
constexpr auto kAgreement = std::chrono::seconds(30);
constexpr int kWorkers = 6;
constexpr int kVmsOfWorker = 4;
constexpr int kVmsAlone = 4;
constexpr const char* kNode = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01";

const std::vector<std::string>& Switches() {
  static const std::vector<std::string> switches = {"web", "app", "db", "log"};
  return switches;
}

const std::string& ZoneOf(size_t number) {
  static const std::string zones[] = {"zone-1", "zone-2"};
  return zones[number / 2 % 2];
}

std::string HostSwitch(int number) {
  const std::string n = std::to_string(number);
  return "host_switches { id: \"502e6b1a-77c0-41aa-9d11-00000000000" + n + "\" name: \"ks-" + n +
         "\" type: " + std::to_string(3 - number) + " mtu: 1700 transport_zone_id: \"zone-" + n +
         "\" pnic { device_name: \"vmnic" + n +
         "\" uplink_name: \"u1\" } profiles { uplink_profile { active_uplink { name: \"u1\" } } }" +
         (number == 1 ? " overlay: true }" : " }");
}

bool Lists(sim::NodeProcess& node, const std::string& folder, std::string_view name) {
  const Json names = node.Do("file/list " + folder);
  const cJSON* each = nullptr;
  cJSON_ArrayForEach(each, names.get()) {
    if (cJSON_IsString(each) && each->valuestring == name) return true;
  }
  return false;
}

double MonotonicSeconds() {
  return std::chrono::duration<double>(Clock::Process().Now().time_since_epoch()).count();
}

}  // namespace

VifStream::VifStream(sim::NodeProcess& node, uint64_t seed) : node_(node), random_(seed) {
  node_.Do("log/wait \"zemaLum.py is ready\" 30");
  node_.Do("log/wait \"Received client registration ACK from MPA\" 30");
  const Json answer = node_.Do(
      "manager send --timeout 60 SwitchingVertical HostConfigMsg 'id: "
      "\"c0000000-0000-4000-8000-000000000001\" "
      "revision: \"1\" transport_node_id: \"" +
      std::string(kNode) + "\" phase: PHASE2_COMBINED " + HostSwitch(1) + " " + HostSwitch(2) + "'");
  if (NumberAt(answer.get(), "answer.host_config.error_code") != 0) {
    throw std::runtime_error("the host was not configured");
  }
  for (size_t i = 0; i < Switches().size(); ++i) {
    node_.Do("manager vif/switch " + Switches()[i] + " " + ZoneOf(i));
  }
  node_.Do("manager vif/switch still zone-2");
  AwaitDaemon();
  const std::string control = node_.directory() + "/control";
  const auto make = [&](const std::string& name, int count) {
    node_.Do("vm create --count " + std::to_string(count) + " " + name + " eth0::" + Switches().front() +
             " eth1::still");
    std::vector<VmWorker::Vm> vms;
    for (int i = 0; i < count; ++i)
      vms.push_back({name + "-" + std::to_string(i), false, Switches().front()});
    return vms;
  };
  // Alone, the host can restore only ports that existed before.
  alone_vms_ = make("alone", kVmsAlone);
  for (VmWorker::Vm& vm : alone_vms_) {
    node_.Do("vm power-on " + vm.name);
    vm.on = true;
  }
  for (int i = 0; i < kWorkers; ++i) {
    workers_.push_back({std::make_unique<VmWorker>(control, make("vm" + std::to_string(i), kVmsOfWorker),
                                                   Switches(), random_()),
                        {}});
  }
  for (Running& running : workers_) {
    running.thread = NativeThread([this, worker = running.worker.get()] { Work(*worker); });
  }
}

VifStream::~VifStream() {
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
  }
  changed_.NotifyAll();
  for (Running& running : workers_) running.thread.Join();
}

void VifStream::Work(VmWorker& worker) {
  for (;;) {
    {
      std::unique_lock lock(mutex_);
      changed_.Wait(lock, [this] { return running_ || ended_; });
      if (ended_) return;
      ++busy_;
    }
    std::string failure;
    try {
      worker.Change();
    } catch (const std::exception& error) {
      failure = error.what();
    }
    const std::lock_guard lock(mutex_);
    --busy_;
    if (!failure.empty()) failure_ = failure;
    changed_.NotifyAll();
  }
}

void VifStream::Run() {
  const std::lock_guard lock(mutex_);
  running_ = true;
  changed_.NotifyAll();
}

void VifStream::ActAlone() {
  VmWorker::Vm& vm = alone_vms_[random_() % alone_vms_.size()];
  node_.Do(std::string(vm.on ? "vm power-off" : "vm power-on") + " --agent-down " + vm.name);
  vm.on = !vm.on;
  ++alone_;
}

void VifStream::AwaitDaemon() {
  node_.Await("host-management", kPatience,
              [](const cJSON* state) { return cJSON_IsTrue(sim::At(state, "connected")) != 0; });
}

void VifStream::Start() {
  started_ = MonotonicSeconds();
  node_.Do("daemon/start");
}

int VifStream::ResyncRuns() {
  const Json runs = node_.Do("host resync-runs 50");
  int count = 0;
  const cJSON* run = nullptr;
  cJSON_ArrayForEach(run, sim::At(runs.get(), "runs")) count += NumberAt(run, "start") >= started_ ? 1 : 0;
  return count;
}

std::string VifStream::Disagreements() {
  const Json check = node_.Do("vm check");
  std::string text;
  const cJSON* line = nullptr;
  cJSON_ArrayForEach(line, sim::At(check.get(), "lines")) {
    if (cJSON_IsString(line)) text += std::string("\n  ") + line->valuestring;
  }
  return text;
}

int VifStream::Settle() {
  {
    std::unique_lock lock(mutex_);
    running_ = false;
    changed_.Wait(lock, [this] { return busy_ == 0; });
    if (!failure_.empty()) throw std::runtime_error(failure_);
  }
  AwaitDaemon();
  const TimePoint limit = Clock::Process().Now() + kAgreement;
  for (std::string text = Disagreements(); !text.empty(); text = Disagreements()) {
    if (Clock::Process().Now() > limit) throw std::runtime_error("not in agreement:" + text);
    SleepFor(std::chrono::milliseconds(50));
  }
  for (const char* const rules : {"corvd/violations", "switch/violations"}) {
    const Json broken = node_.Do(rules);
    const int count = cJSON_IsArray(broken.get()) ? cJSON_GetArraySize(broken.get())
                                                  : static_cast<int>(NumberAt(broken.get(), "count"));
    if (count != 0) throw std::runtime_error(std::string(rules) + ": " + std::to_string(count));
  }
  return ResyncRuns();
}

uint64_t VifStream::Sum(uint64_t (VmWorker::*count)() const) const {
  uint64_t sum = 0;
  for (const Running& running : workers_) sum += (running.worker.get()->*count)();
  return sum;
}

size_t VifStream::drafts() {
  size_t count = 0;
  const Json machines = node_.Do("vm list");
  const cJSON* machine = nullptr;
  cJSON_ArrayForEach(machine, sim::At(machines.get(), "list")) {
    const std::string path = sim::TextAt(machine, "path");
    const std::string folder = path.substr(0, path.rfind('/'));
    // A VM that was never on has no files of ports.
    if (!Lists(node_, folder, ".dvsData")) continue;
    const Json files = node_.Do("file/list " + folder + "/.dvsData");
    const cJSON* file = nullptr;
    cJSON_ArrayForEach(file, files.get()) {
      const std::string name = cJSON_IsString(file) ? file->valuestring : "";
      count += name.ends_with(".tmp") ? 1 : 0;
    }
  }
  return count;
}

}  // namespace zem::bench
