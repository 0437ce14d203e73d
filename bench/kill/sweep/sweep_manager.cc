#include "bench/kill/sweep/sweep_manager.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "platform/core/thread.h"
#include "sim/manager/random_config.h"

namespace zem::bench {
namespace {

using sim::Json;
using sim::NumberAt;
using sim::TextAt;

constexpr const char* kOwnNetwork = "b0000000-0000-4000-8000-0000000000b9";
constexpr const char* kSendConfig = "manager send --timeout 120 SwitchingVertical HostConfigMsg '";
constexpr auto kRepeat = std::chrono::seconds(2);
constexpr auto kPause = std::chrono::milliseconds(10);
constexpr const char* kHealth = "com.orlane.common.opaqueDvs.status.component.zema";
constexpr const char* kPendingActions = "pendingUserActions\":\"maintenance_mode";

std::string OwnSwitch(int operation) {
  return std::string(
             "manager send --no-wait SwitchingVertical LogicalSwitchMsg 'logical_switch_info { "
             "transport_zone_id: ") +
         Quoted(sim::kZones[1]) + " revision: 1 logical_switch_id: " + Quoted(kOwnNetwork) +
         " name: \"own\" operation: " + std::to_string(operation) + " path: \"/infra/segments/own\" }'";
}

}  // namespace

void SweepManager::BeginSent() {
  acknowledged_ = false;
  run_.Begin(
      [command = kSendConfig + sent_.back().text + "'"](Background::Node& node) {
        Json answer;
        const std::string reason = node.Try(command, &answer);
        if (!reason.empty()) return reason;
        const double code = NumberAt(answer.get(), "answer.host_config.error_code");
        return code == 0 ? std::string()
                         : "refused: " + TextAt(answer.get(), "answer.host_config.error_text");
      },
      [this](const std::string& reason) {
        if (reason.starts_with("refused")) throw std::runtime_error("the configuration was " + reason);
        acknowledged_ = reason.empty();
      });
}

void SweepManager::SendAgain() {
  const Sent again = sent_.back();
  sent_.push_back(again);
  const Json answer = run_.node().Do(kSendConfig + again.text + "'");
  if (NumberAt(answer.get(), "answer.host_config.error_code") != 0) {
    throw std::runtime_error("sent again, the configuration was refused: " +
                             TextAt(answer.get(), "answer.host_config.error_text"));
  }
  acknowledged_ = true;
}

void SweepManager::SendConfig(const Shape& shape) {
  const int revision = run_.NextNumber();
  sent_.push_back(
      {ConfigText(shape, revision), sim::ChecksumOf(kNodeId, kConfigId, std::to_string(revision))});
  if (shape.performance && !shape_.performance) performance_waits_ = true;
  shape_ = shape;
  configured_ = true;
  clean_ = false;
  if (shape.interface != Shape::Interface::kStays)
    host_.ExpectInterface(shape.interface == Shape::Interface::kIn);
  BeginSent();
}

void SweepManager::SendRemoval() {
  sent_.push_back({"id: " + Quoted(kConfigId) + " revision: \"-1\"", ""});
  configured_ = false;
  clean_ = true;
  store_.ForgetSwitches();
  BeginSent();
}

// An operator repeats a command that was not answered.
void SweepManager::Reset() {
  configured_ = false;
  clean_ = true;
  store_.ForgetSwitches();
  sent_.clear();
  run_.Run("cli zema/reset");
}

void SweepManager::SetMaintenance(bool on) {
  maintenance_ = on;
  run_.Run(std::string(
               "manager send --timeout 60 SwitchingVertical MaintenanceModeConfigMsg 'id: \"m1\" state: ") +
           (on ? "1'" : "0'"));
}

void SweepManager::SendSwitch() {
  const auto there = [](const cJSON* networks) { return cJSON_HasObjectItem(networks, kOwnNetwork) != 0; };
  run_.Begin(
      [there](Background::Node& node) {
        const std::string reason = node.Try(OwnSwitch(0));
        return reason.empty() ? node.Until("host networks", there) : reason;
      },
      // Networks that the manager sent are not in the store, and the reading of the store at a start removes
      // them from the host.  The manager sees that by the checksum of the networks and sends them again.
      [this, there](const std::string&) {
        Again(OwnSwitch(0), there);
        Again(OwnSwitch(2), [there](const cJSON* networks) { return !there(networks); });
      });
}

void SweepManager::Again(const std::string& command, const std::function<bool(const cJSON*)>& good) {
  const TimePoint limit = Clock::Process().Now() + SweepRun::kPatience;
  while (!good(run_.node().Do("host networks").get())) {
    if (Clock::Process().Now() > limit) throw std::runtime_error("in vain: " + command);
    run_.StoredChecksum();  // proves that the daemon can be reached
    run_.node().Do(command);
    const TimePoint next = Clock::Process().Now() + kRepeat;
    while (!good(run_.node().Do("host networks").get()) && Clock::Process().Now() < next) SleepFor(kPause);
  }
}

void SweepManager::SendControllers() {
  controller_ = "10.0.0." + std::to_string(1 + run_.NextNumber() % 200);
  const std::string list = "update { controller { ipv4_address: " + Quoted(controller_) +
                           " port: 1235 uuid { first: 1 second: 1 } ssl_enabled: false } }";
  run_.node().Do(
      "manager answer ControllerMgmtVertical request text 'type: \"com.orlane.zem.config.MpLcpMsg\" mp_lcp "
      "{ " +
      list + " }'");
  run_.Begin(
      [list, server = "<server>" + controller_ + "</server>"](Background::Node& node) {
        const std::string reason =
            node.Try("manager send --no-wait --publish ControllerMgmtVertical MpLcpMsg '" + list + "'");
        if (!reason.empty()) return reason;
        return node.Until("host reloads 1", [&](const cJSON* result) {
          const cJSON* const last = cJSON_GetArrayItem(sim::At(result, "reloads"), 0);
          return TextAt(last, "content").find(server) != std::string::npos;
        });
      },
      // After a restart the daemon requests the list.
      [](const std::string&) {});
}

void SweepManager::RestoreVif() {
  const std::string state = "S" + std::to_string(run_.NextNumber());
  run_.Begin(
      [state](Background::Node& node) {
        const std::string reason = node.Try("manager vif/restore vif-0 " + state);
        if (!reason.empty()) return reason;
        return node.Until("manager vif/show vif-0",
                          [&](const cJSON* vif) { return TextAt(vif, "restored") == state; });
      },
      [this, state](const std::string& reason) {
        if (reason.empty()) return;
        run_.StoredChecksum();  // proves that the daemon can be reached
        run_.Insist("manager vif/restore vif-0 " + state);
        run_.node().Await("manager vif/show vif-0", SweepRun::kPatience,
                          [&](const cJSON* vif) { return TextAt(vif, "restored") == state; });
      });
}

void SweepManager::AwaitClean() {
  run_.node().Await("switch/list", SweepRun::kPatience,
                    [](const cJSON* list) { return cJSON_GetArraySize(list) == 0; });
  run_.node().Await("host networks count", SweepRun::kPatience,
                    [](const cJSON* result) { return NumberAt(result, "networks") == 0; });
}

// The host has to match the checksum before any request is repeated.
void SweepManager::SettleConfig() {
  if (sent_.empty()) return;
  const std::string stored = run_.StoredChecksum();
  const auto found =
      std::find_if(sent_.rbegin(), sent_.rend(), [&](const Sent& sent) { return sent.checksum == stored; });
  if (host_.TakeChangedByTool()) {
    acknowledged_ = false;
  } else if (stored.empty()) {
    AwaitClean();
  } else if (found == sent_.rend()) {
    throw std::runtime_error("the stored configuration is not in force, or none that was sent");
  } else {
    run_.node().Await("diff " + std::to_string(found - sent_.rbegin()), SweepRun::kPatience,
                      [](const cJSON* diff) { return NumberAt(diff, "count") == 0; });
  }
  if (acknowledged_ && stored == sent_.back().checksum) return;
  SendAgain();
  if (run_.StoredChecksum() != sent_.back().checksum) {
    throw std::runtime_error("the configuration was answered with success, and the checksum differs");
  }
}

std::string SweepManager::Disagreement() {
  if (clean_) {
    const Json switches = run_.node().Do("switch/list");
    if (cJSON_GetArraySize(switches.get()) != 0)
      return "a removed host has switches:" + Lines(switches.get());
  } else {
    const Json diff = run_.node().Do("diff");
    if (NumberAt(diff.get(), "count") != 0) return "the host differs:" + Lines(sim::At(diff.get(), "lines"));
  }
  const std::string kind = TextAt(run_.node().Do("host show interfaces").get(), "knl0.where.kind");
  if (kind != (host_.interface_in() ? "logical" : "standard")) return "the management interface is " + kind;
  const std::string health = maintenance_ ? "down" : "up";
  const Json switches = run_.node().Do("switch/list");
  const cJSON* each = nullptr;
  cJSON_ArrayForEach(each, switches.get()) {
    const cJSON* const host = sim::At(each, "host");
    const char* const shown = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(host, kHealth));
    if (shown == nullptr || shown != health) {
      return "switch [" + TextAt(each, "name") + "] shows the health [" + (shown == nullptr ? "" : shown) +
             "] instead of [" + health + "]";
    }
  }
  const Json files = run_.node().Do("file/list /etc/orlane/zema");
  cJSON_ArrayForEach(each, files.get()) {
    const std::string name = each->valuestring;
    // A draft is overwritten when the file is written next.
    if (name.ends_with(".tmp") || (name == "host_config.bin" && configured_)) continue;
    if (name == "host_config_mmode.bin" && configured_) continue;
    return "left over: " + name;
  }
  return {};
}

std::string SweepManager::ControllersDisagreement() {
  if (controller_.empty()) return {};
  const std::string file =
      TextAt(run_.node().Do("file/read /etc/orlane/zem/controller-info.xml").get(), "text");
  if (file.find("<server>" + controller_ + "</server>") == std::string::npos) {
    return "the file of the controllers lacks " + controller_ + ": " + file;
  }
  const Json reloads = run_.node().Do("host reloads 1");
  const std::string read = TextAt(cJSON_GetArrayItem(sim::At(reloads.get(), "reloads"), 0), "content");
  if (read != file) return "the proxy process has not read the file of the controllers";
  return {};
}

void SweepManager::CheckPerformance() {
  if (!std::exchange(performance_waits_, false)) return;
  const auto waits = [](const cJSON* switches) {
    return sim::JsonText(switches).find(kPendingActions) != std::string::npos;
  };
  run_.node().Await("switch/list", SweepRun::kPatience, waits);
  run_.node().Do("host set maintenance true");
  run_.node().Await("switch/list", SweepRun::kPatience,
                    [waits](const cJSON* switches) { return !waits(switches); });
  run_.node().Do("host set maintenance false");
}

}  // namespace zem::bench
