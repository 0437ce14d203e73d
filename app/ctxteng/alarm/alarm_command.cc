#include "app/ctxteng/alarm/alarm_command.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

#include "app/ctxteng/alarm/alarm_registry.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

using zem::Tarvik::CliArguments;
using zem::Tarvik::CliReply;

constexpr zem::LogSource kLog{"tarvik", "framework"};

constexpr uint16_t kIntrusionDetection = 33;
// The events about the memory of the process, without and with a DPU.
constexpr std::array<uint16_t, 6> kEventTypes = {15, 17, 19, 23, 33, 35};
constexpr int kAnyBase = 0;

void SetThreshold(const CliArguments& arguments, CliReply reply) {
  const auto event_type = static_cast<uint16_t>(std::strtoll(arguments[0].c_str(), nullptr, kAnyBase));
  const auto threshold = static_cast<uint32_t>(std::strtoll(arguments[1].c_str(), nullptr, kAnyBase));
  ZLOG_INFO("CliServer: Setting threshold %d on IDS Alarms EventTypeId: %d", static_cast<int>(threshold),
            event_type);
  if (std::ranges::find(kEventTypes, event_type) == kEventTypes.end()) {
    reply.Ok("Event type not supported via this CLI, threshold not set");
    return;
  }
  const auto manager = alarms::Find(kIntrusionDetection);
  if (manager == nullptr) {
    ZLOG_INFO(" FeatureId %d is Invalid ", kIntrusionDetection);
    reply.Ok("FeatureId invalid, threshold not set");
    return;
  }
  // An event that the manager has switched off stays off.
  manager->UpdateEventConfig(event_type, manager->IsDisabled(event_type), threshold);
  reply.Ok("Status OK");
}

}  // namespace

zem::Tarvik::CliCommand SetAlarmCommand() {
  return {"set/alarm", "[EventTypeId], [ThresholdValue]", 2, 2,
          [](const CliArguments& arguments, CliReply reply) {
            // The command server counts the arguments; a caller without one gets no reply.
            if (arguments.size() < 2) {
              ZLOG_INFO("Argc should be equal to 2, argc %d", static_cast<int>(arguments.size()));
              return;
            }
            SetThreshold(arguments, std::move(reply));
          }};
}

}  // namespace Ctxt
