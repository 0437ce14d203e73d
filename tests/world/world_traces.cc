#include "tests/world/world_traces.h"

#include <cjson/cJSON.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "app/healthcheck/health_check.h"
#include "app/livetrace/livetrace_app.h"
#include "app/traceflow/traceflow_app.h"
#include "framework/dataplane/lcp_adapter.h"
#include "platform/provider/work_group.h"
#include "sim/control/json.h"
#include "sim/host/virtual_machines.h"
#include "sim/manager/manager.h"
#include "sim/switch/sim_state.h"
#include "sim/switch/tree/uplinks.h"
#include "sim/switch/vif_ports.h"

namespace zem::world {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr const char* kLink = "/run/orlane/zem-agent/zema_link";
constexpr const char* kCaptures = "/tmp/livetrace/pktcap";
// What the upload's script exits with.
constexpr const char* kUploadResult = "/tmp/livetrace/upload";
constexpr const char* kTraceflow = "Traceflow";
constexpr const char* kLivetrace = "livetrace";
constexpr const char* kCheck = "HealthCheck";
constexpr const char* kOwnSwitch = "checked-switch";
constexpr const char* kOwnSwitchName = "ks-checked";
constexpr const char* kOwnPort = "traced-port";
constexpr int kNoAnswer = -1;

int StatusIn(const std::string& vertical, const sim::HostAnswer& answer) {
  if (!answer.status.ok()) return kNoAnswer;
  const sim::Json json(cJSON_Parse(sim::AnswerJson(vertical, answer).c_str()));
  for (const char* const member : {"packet_out_request_status", "status", "report"}) {
    const cJSON* part = cJSON_GetObjectItemCaseSensitive(json.get(), member);
    if (const cJSON* const inner = cJSON_GetObjectItemCaseSensitive(part, "request_status")) part = inner;
    const cJSON* const status = cJSON_GetObjectItemCaseSensitive(part, "status");
    if (cJSON_IsNumber(status)) return status->valueint;
  }
  return kNoAnswer;
}

void SetUploadResult(int code) { std::ofstream(kUploadResult, std::ios::trunc) << code; }

}  // namespace

WorldTraces::WorldTraces(sim::Manager& manager, sim::VirtualMachines& machines)
    : manager_(manager), machines_(machines) {
  std::filesystem::create_directories(std::filesystem::path(kLink).parent_path());
  std::filesystem::create_directories(kCaptures);
  SetUploadResult(0);
  dataplane_ = std::make_unique<sim::DataplaneAgent>(kLink);
  traces_ = std::make_unique<sim::TraceAgent>(*dataplane_, kCaptures);
  // The machine's time hardly passes here.
  sim::uplinks::SetCheckTime(0);
}

WorldTraces::~WorldTraces() = default;

void WorldTraces::StartAgent(AsioZemProvider& provider) {
  group_ = new WorkGroup("tarvik", metrics_, WorkGroup::kUnbounded);
  group_->Start(2);
  adapter_ = new Tarvik::LcpAdapter(group_, kLink);
  adapter_->Start(provider);
  check_ = std::make_shared<Tarvik::HealthCheck>(provider);
  livetrace_ = Tarvik::LivetraceApp::Create(
      provider, adapter_,
      {.captures = std::string(kCaptures) + "/",
       .upload_command = {"/bin/sh", "-c",
                          std::string("cat > /dev/null; exit $(cat ") + kUploadResult + ")"}});
  traceflow_ = std::make_shared<Tarvik::TraceflowApp>(provider, adapter_);
  traceflow_->Start();
  check_->Start();
  livetrace_->Start();
}

void WorldTraces::StopAgent() {
  check_->Stop();
  livetrace_->Stop();
  traceflow_->Stop();
  check_.reset();
  livetrace_.reset();
  traceflow_.reset();
  adapter_->Stop();
  adapter_.reset();
  group_->Stop();
  group_.reset();
}

size_t WorldTraces::Send(const std::string& vertical, const std::string& member, const std::string& text,
                         bool publish) {
  size_t number;
  {
    const std::lock_guard lock(mutex_);
    number = ++last_call_;
    calls_[number].vertical = vertical;
  }
  sim::Manager::SendRequest request{.vertical = vertical, .member = member, .text = text, .publish = publish};
  const std::string error = manager_.Send(request, [this, number, vertical](const sim::HostAnswer& answer) {
    const int status = StatusIn(vertical, answer);
    const std::lock_guard lock(mutex_);
    Call& call = calls_[number];
    ++call.ends;
    call.status = status;
  });
  if (!error.empty()) {
    // There is no master to ask; nothing was sent.
    const std::lock_guard lock(mutex_);
    calls_.erase(number);
  }
  return number;
}

size_t WorldTraces::AskTraceflow(const std::string& port) {
  return Send(
      kTraceflow, "TraceflowPacketOutRequestMsg",
      "round_id { first: 1 second: " + std::to_string(++last_id_) + " } source_port: \"" + port + "\"",
      false);
}

size_t WorldTraces::AskLivetrace(uint64_t id, const std::string& port, bool capture) {
  return Send(
      kLivetrace, "LivetraceMsg",
      "request { metadata { session_id: " + std::to_string(id >> 1) + " side: " + std::to_string(id & 1) +
          " } source_port: \"" + port + "\" duration_ms: 3000 packets: 2 trace: true" +
          (capture ? " capture: true upload_id: \"u\" upload_target { server: \"m\" port: 1 } }" : " }"),
      false);
}

size_t WorldTraces::AskCheck(const std::string& name) {
  return Send(kCheck, "HealthCheckRequestMsg",
              "round_id { first: 2 second: " + std::to_string(++last_id_) +
                  " } test_time_s: 2 vlan_mtu { switch_name: \"" + name + "\" range { first: 1 last: 9 } }",
              false);
}

std::string WorldTraces::SomePort(std::mt19937_64& random) {
  const auto machines = machines_.All();
  if (machines.empty() || random() % 5 == 0) return "nowhere";
  const auto& vnics = machines[random() % machines.size()].vnics;
  const std::string port = vnics.empty() ? "" : vnics.begin()->second.port;
  return port.empty() ? "nowhere" : port;
}

void WorldTraces::Ask(std::mt19937_64& random) {
  const std::string port = SomePort(random);
  switch (random() % 6) {
    case 0:
    case 1:
      for (uint64_t i = 0; i <= random() % 4; ++i) AskTraceflow(port);
      break;
    case 2:
    case 3:
      AskLivetrace(++last_id_, port, random() % 2 == 0);
      break;
    case 4:
      Send(kLivetrace, "LivetraceMsg",
           "delete_request { metadata { session_id: " + std::to_string(last_id_ >> 1) + " } }", true);
      static_cast<void>(traces_->Onboard(1'000'000 + ++last_id_, port, 1));
      break;
    default:
      AskCheck(random() % 3 == 0 ? "unknown" : kOwnSwitchName);
  }
}

void WorldTraces::Disturb(std::mt19937_64& random) {
  switch (random() % 6) {
    case 0:
      dataplane_->Die();
      break;
    case 1:
      static_cast<void>(dataplane_->Return());
      break;
    case 2:
      traces_->SetDelay(std::chrono::milliseconds(random() % 4000));
      break;
    case 3:
      SetUploadResult(static_cast<int>(random() % 2));
      break;
    default:
      traces_->SetAnswers(static_cast<sim::TraceAgent::Answers>(random() % std::size(sim::kTraceAnswers)),
                          1 + static_cast<int>(random() % 4));
  }
}

void WorldTraces::Calm() {
  static_cast<void>(dataplane_->Return());
  traces_->SetDelay(Duration(0));
  traces_->SetAnswers(sim::TraceAgent::Answers::kGood, 0);
  SetUploadResult(0);
}

int WorldTraces::StatusOf(size_t call) const {
  const std::lock_guard lock(mutex_);
  const auto found = calls_.find(call);
  return found == calls_.end() ? kNoAnswer : found->second.status;
}

Lines WorldTraces::Check(const std::function<void(Duration)>& run) {
  Lines lines;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [number, call] : calls_) {
      if (call.ends != 1)
        lines.push_back("a call to " + call.vertical + " has ended " + std::to_string(call.ends) + " times");
    }
    calls_.clear();
  }
  sim::SwitchState switches;
  if (!switches.MakeSwitch({kOwnSwitch, kOwnSwitchName, "NVS", {}, {"u1"}}) ||
      !sim::AddPort({kOwnSwitch, kOwnPort}).empty())
    lines.emplace_back("the host makes no switch with a port");

  // A manager ends the traces that it has not heard of.
  for (const auto& [id, name] : livetrace_->ListSessions()) {
    Send(kLivetrace, "LivetraceMsg", "delete_request { metadata { session_id: " + std::to_string(id) + " } }",
         true);
  }
  run(3s);
  const uint64_t before = manager_.record().received_count();
  const size_t round = AskTraceflow(kOwnPort);
  const size_t trace = AskLivetrace(++last_id_, kOwnPort, true);
  const size_t check = AskCheck(kOwnSwitchName);
  run(15s);
  if (StatusOf(round) != 0) lines.push_back("traceflow has status " + std::to_string(StatusOf(round)));
  if (StatusOf(trace) != 0) lines.push_back("live trace has status " + std::to_string(StatusOf(trace)));
  if (StatusOf(check) != 2) lines.push_back("health check has status " + std::to_string(StatusOf(check)));
  const auto expect = [&](const std::string& vertical, const std::string& part) {
    for (const auto& each : manager_.record().ReceivedFrom(vertical, before)) {
      if (each.json.find(part) != std::string::npos) return;
    }
    lines.push_back(vertical + " has not told " + part);
  };
  expect(kTraceflow, "\"component_name\":\"u1\"");
  expect(kLivetrace, "\"pcap_file_name\":\"livetrace-");
  expect(kLivetrace, "\"component_name\":\"u1\"");
  expect(kCheck, "\"uplink_name\":\"u1\",\"result\":2");
  if (switches.SwitchProperty(kOwnSwitch, "global", "com.orlane.vswitch.vlanmtucheck.deploy"))
    lines.emplace_back("the health check's property is left");
  static_cast<void>(switches.RemoveSwitch(kOwnSwitch));

  for (const auto& [id, name] : livetrace_->ListSessions())
    lines.push_back("a live trace is left: " + std::to_string(id));
  for (const auto& entry : std::filesystem::directory_iterator(kCaptures))
    lines.push_back("a capture is left: " + entry.path().string());
  return lines;
}

}  // namespace zem::world
