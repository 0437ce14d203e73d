#include "bench/kill/stream.h"

#include <stdexcept>

#include "sim/manager/random_config.h"

namespace zem::bench {
namespace {

using sim::Json;
using sim::NumberAt;
using sim::TextAt;

constexpr auto kPatience = std::chrono::seconds(60);
constexpr auto kQuestion = std::chrono::milliseconds(500);
constexpr const char* kNode = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01";

std::string ConfigId(int number) {
  std::string digits = std::to_string(number);
  return "c0000000-0000-4000-8000-" + std::string(12 - digits.size(), '0') + digits;
}

std::string Switch(int number, int config) {
  const std::string n = std::to_string(number);
  // Endpoints are added and removed, and so is the second physical NIC.
  std::string text = "host_switches { id: \"502e6b1a-77c0-41aa-9d11-00000000000" + n + "\" name: \"ks-" + n +
                     "\" type: 2 mtu: " + std::to_string(1500 + config % 4 * 100) +
                     " transport_zone_id: \"a0000000-0000-4000-8000-0000000000a" + n + "\" overlay: true" +
                     " pnic { device_name: \"vmnic" + std::to_string(number * 2 - 1) +
                     "\" uplink_name: \"u1\" }";
  if (config % 2 == 0) {
    text += " pnic { device_name: \"vmnic" + std::to_string(number * 2) + "\" uplink_name: \"u2\" }";
  }
  text +=
      " profiles { uplink_profile { active_uplink { name: \"u1\" } standby_uplink { name: \"u2\" } } }"
      " static_address: true transport_vlan: 150";
  for (int i = 0; i < 1 + config % 3; ++i) {
    const std::string device = std::to_string(10 * number + i);
    text += " vteps { device_name: \"knl" + device + "\" ipv4_address: \"172.16." + n + "." + device + "\" }";
  }
  return text + " }";
}

}  // namespace

Stream::Stream(sim::NodeProcess& node) : node_(node), checksum_(node, kNode) {}

std::string Stream::ConfigText(int number) const {
  std::string text = "id: \"" + ConfigId(number) + "\" revision: \"" + std::to_string(number) +
                     "\" transport_node_id: \"" + kNode + "\" phase: PHASE2_COMBINED " + Switch(1, number);
  // The second switch is removed and added again.
  if (number % 5 != 0) text += " " + Switch(2, number);
  return text;
}

void Stream::SendConfig() {
  ++config_;
  node_.Do("manager send --no-wait --timeout 120 SwitchingVertical HostConfigMsg '" + ConfigText(config_) +
           "'");
}

void Stream::PutSwitches(int count) {
  ++barrier_;
  node_.Do("store switches/put " + std::to_string(count) + " " + std::to_string(barrier_) + " " +
           std::to_string(switches_ + 1));
  switches_ += count;
}

void Stream::CheckFiles() {
  // The file itself is checked too: the checksum of a good one beside it would hide a torn file.
  const Json files = node_.Do("file/list /etc/orlane/zema");
  const cJSON* each = nullptr;
  cJSON_ArrayForEach(each, files.get()) {
    const std::string name = cJSON_IsString(each) ? each->valuestring : "";
    if (name.find(".tmp") == std::string::npos || name == "host_config.bin.tmp") continue;
    throw std::runtime_error("left over: " + name);
  }
}

void Stream::CheckConvergence() {
  node_.Await("host-management", kPatience,
              [](const cJSON* state) { return cJSON_IsTrue(sim::At(state, "connected")) != 0; });
  const std::string stored = checksum_.Ask(kQuestion, kPatience);
  int back = -1;
  for (int i = 0; i < 8 && i < config_; ++i) {
    const int number = config_ - i;
    if (stored == sim::ChecksumOf(kNode, ConfigId(number), std::to_string(number))) back = i;
  }
  if (config_ > 0 && back < 0 && !stored.empty())
    throw std::runtime_error("the stored file is none that was sent");
  if (back >= 0) {
    // A configuration that was half done is finished at the start.
    node_.Await("diff " + std::to_string(back), kPatience,
                [](const cJSON* diff) { return NumberAt(diff, "count") == 0; });
  }
  if (back != 0 && config_ > 0) {
    ++resent_;
    const Json answer =
        node_.Do("manager send --timeout 120 SwitchingVertical HostConfigMsg '" + ConfigText(config_) + "'");
    if (NumberAt(answer.get(), "answer.host_config.error_code") != 0) {
      throw std::runtime_error("the last configuration was refused: " +
                               TextAt(answer.get(), "answer.host_config.error_text"));
    }
    node_.Await("diff", kPatience, [](const cJSON* diff) { return NumberAt(diff, "count") == 0; });
  }
  node_.Await("host networks count", kPatience,
              [this](const cJSON* result) { return NumberAt(result, "networks") == switches_; });
  if (barrier_ > 0) {
    const std::string processed = "value: " + std::to_string(barrier_);
    node_.Await("store get 112", kPatience, [&](const cJSON* objects) {
      const cJSON* const first = cJSON_GetArrayItem(objects, 0);
      return TextAt(first, "object") == processed;
    });
  }
  CheckFiles();
}

}  // namespace zem::bench
