#include "bench/kill/requests/checksum_question.h"

#include <stdexcept>
#include <utility>

#include "sim/control/json.h"
#include "sim/scenario/node_process.h"

namespace zem::bench {

using sim::Json;
using sim::NumberAt;
using sim::TextAt;

ChecksumQuestion::ChecksumQuestion(sim::NodeProcess& node, std::string node_id)
    : node_(node), node_id_(std::move(node_id)) {}

std::string ChecksumQuestion::Ask(Duration again, Duration patience) {
  const Json before = node_.Do("manager received SwitchingVertical " + std::to_string(received_));
  const cJSON* message = nullptr;
  cJSON_ArrayForEach(message, sim::At(before.get(), "messages")) {
    received_ = static_cast<uint64_t>(NumberAt(message, "number"));
  }
  std::string checksum;
  const auto answered = [&](const cJSON* result) {
    cJSON_ArrayForEach(message, sim::At(result, "messages")) {
      if (TextAt(message, "type") != "com.orlane.zem.switching.ChecksumMsg") continue;
      checksum = TextAt(message, "message.checksum.checksum");
      return true;
    }
    return false;
  };
  const TimePoint limit = Clock::Process().Now() + patience;
  for (;;) {
    node_.Do("manager send --no-wait --timeout 1 SwitchingVertical ChecksumMsg 'id: \"" + node_id_ + "\"'");
    try {
      node_.Await("manager received SwitchingVertical " + std::to_string(received_), again, answered);
      return checksum;
    } catch (const std::runtime_error&) {
      if (Clock::Process().Now() > limit) throw std::runtime_error("the checksum is not answered");
    }
  }
}

}  // namespace zem::bench
