#include "app/ctxteng/alarm/idps_info.h"

#include <sys/eventfd.h>

#include <boost/lexical_cast.hpp>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <exception>
#include <limits>
#include <sstream>
#include <system_error>
#include <utility>

#include "app/ctxteng/alarm/entity_id.h"
#include "app/ctxteng/alarm/host_command.h"
#include "app/ctxteng/alarm/json_text.h"
#include "framework/log/log.h"

namespace IdpsAlarm {
namespace {

using Ctxt::Fields;
using Ctxt::IsNumber;
using Ctxt::JsonText;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr const char* kGroupIdCommand = "hvprobe -e set /sched/groupPathNameToID host lum hypermon zem-idps";
constexpr const char* kProcessCommand = "ps -C | grep zem-idps | cut -d ' ' -f 1";

// A reading costs a pipeline of the host's tools, so it serves this many rounds.
constexpr uint64_t kRoundsPerReading = 3;

// The event types of a host without and with a DPU.
struct Threshold {
  uint16_t host_event;
  uint16_t dpu_event;
  uint32_t percent;
};
constexpr Threshold kMemoryLevels[] = {{15, 23, 75}, {17, 33, 85}, {19, 35, 95}};
constexpr Threshold kProcessDown = {13, 31, 1};

std::string MemoryCommand(const std::string& group_id) {
  return "memstats -r group-stats -s name:max:consumed -u mb -g " + group_id + " | grep -w -E '^\\s*" +
         group_id + "'";
}

}  // namespace

IdpsInfo::IdpsInfo(IdpsConditions conditions)
    : conditions_(std::move(conditions)), interrupt_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (interrupt_.get() < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

std::vector<Ctxt::AlarmEvent> IdpsInfo::Events() {
  const bool dpu = !conditions_.dpu_id.empty();
  std::vector<Ctxt::AlarmEvent> events;
  for (const Threshold& level : kMemoryLevels) {
    events.push_back(
        {.event_type = dpu ? level.dpu_event : level.host_event,
         .sample = [this](uint64_t round) { return MemorySample(round); },
         .context = [this](const std::string& entity_id, uint32_t usage,
                           uint32_t threshold) { return MemoryContext(entity_id, usage, threshold); },
         .threshold = level.percent});
  }
  events.push_back({.event_type = dpu ? kProcessDown.dpu_event : kProcessDown.host_event,
                    .sample = [this](uint64_t) { return ProcessDownSample(); },
                    .context = {},
                    .threshold = kProcessDown.percent});
  events.push_back({.event_type = kKafkaBrokersDown, .sample = {}, .context = {}});
  return events;
}

void IdpsInfo::Interrupt() {
  // The counter cannot overflow: only this function adds to it.
  static_cast<void>(::eventfd_write(interrupt_.get(), 1));
}

int IdpsInfo::Run(const std::string& command, std::string* output) const {
  return Ctxt::RunHostCommand(command, interrupt_.get(), output);
}

std::optional<uint32_t> IdpsInfo::MemorySample(uint64_t round) {
  // All levels of a round are decided on the same reading.
  if (round == sampled_round_) return last_mem_usage_;
  sampled_round_ = round;
  if (last_mem_usage_ != 0 && (round - 1) % kRoundsPerReading != 0) {
    ZLOG_DEBUG("IdpsAlarm: from cache mem usage: %d", static_cast<int>(last_mem_usage_));
    return last_mem_usage_;
  }
  last_mem_usage_ = ReadMemoryUsage();
  return last_mem_usage_;
}

std::string IdpsInfo::GroupId() {
  std::string output;
  if (const int ret = Run(kGroupIdCommand, &output); ret != 0) {
    ZLOG_CTX_ERROR(774, "IdpsAlarm: GROUPID_CMD cmdOutput execution error, ret: %d", ret);
    return {};
  }
  ZLOG_DEBUG("IdpsAlarm: GRPPATHTOID_CMD executedCmd output [%s]", output.c_str());
  const std::vector<std::string> fields = Fields(output);
  if (fields.empty()) {
    ZLOG_WARN("IdpsAlarm: zem-idps group id is empty fail: %d", 0);
    return {};
  }
  // The id goes into a shell command, so it has to be a number.
  if (fields.size() != 1 || !IsNumber(fields[0])) {
    ZLOG_WARN("IdpsAlarm: Unexpected return size %lu from GROUPID_CMD cmdOutput [%s]", fields.size(),
              output.c_str());
    return {};
  }
  ZLOG_INFO("IdpsAlarm: zem-idps new group id: %s", fields[0].c_str());
  return fields[0];
}

uint32_t IdpsInfo::ReadMemoryUsage() {
  if (group_id_.empty()) group_id_ = GroupId();
  if (group_id_.empty()) {
    ZLOG_WARN("IdpsAlarm: zem-idps grp Id is empty");
    return 0;
  }
  // Taken out: a reading that fails for any reason looks the group up again, because the process may have
  // come back in another one.
  const std::string group_id = std::exchange(group_id_, {});
  const std::string command = MemoryCommand(group_id);
  std::string output;
  if (const int ret = Run(command, &output); ret != 0) {
    ZLOG_CTX_ERROR(774, "IdpsAlarm: Error in executing command to get memstats for idps process, ret: %d",
                   ret);
    return 0;
  }
  ZLOG_DEBUG("IdpsAlarm: memstats cmd: [%s] output: [%s]", command.c_str(), output.c_str());
  const std::vector<std::string> fields = Fields(output);
  if (fields.size() < 4) {
    ZLOG_CTX_ERROR(774, "IdpsAlarm: Unexpected return size %lu from mem usage cmd %s cmdOutput [%s]",
                   fields.size(), command.c_str(), output.c_str());
    return 0;
  }
  try {
    const auto max = boost::lexical_cast<int64_t>(fields[2]);
    const auto consumed = boost::lexical_cast<int64_t>(fields[3]);
    // A group without a limit says so with a maximum below 1.
    if (max <= 0 || consumed < 0 || consumed > std::numeric_limits<int64_t>::max() / 100) return 0;
    const auto usage =
        static_cast<uint32_t>(std::min<int64_t>(consumed * 100 / max, std::numeric_limits<int32_t>::max()));
    ZLOG_INFO("IdpsAlarm: new mem usage: %d", static_cast<int>(usage));
    group_id_ = group_id;
    return usage;
  } catch (const boost::bad_lexical_cast& error) {
    ZLOG_CTX_ERROR(1301, "IdpsAlarm: Exception while casting cmdOutput [%s] to mem usage: %s ",
                   output.c_str(), error.what());
    return 0;
  }
}

std::string IdpsInfo::MemoryContext(const std::string& entity_id, uint32_t usage, uint32_t threshold) const {
  Ctxt::JsonMembers members = {{"entity_id", entity_id},
                               {"system_resource_usage", int64_t{usage}},
                               {"system_usage_threshold", int64_t{threshold}}};
  if (!conditions_.dpu_id.empty()) members.emplace_back("dpu_id", conditions_.dpu_id);
  std::string context = JsonText(members);
  ZLOG_DEBUG(" Nodeid %s new s %s", entity_id.c_str(), context.c_str());
  return context;
}

std::optional<uint32_t> IdpsInfo::ProcessDownSample() {
  if (!conditions_.enabled() || !conditions_.has_rules()) return 0;
  std::string output;
  // The pipeline's last command decides its exit code, so a process that is missing is no failure.
  if (const int ret = Run(kProcessCommand, &output); ret != 0) {
    ZLOG_CTX_ERROR(774, "IdpsAlarm: Error executing command to check idps process state using ps -C, ret: %d",
                   ret);
    return 0;
  }
  ZLOG_DEBUG("IdpsAlarm: zem-idps process executedCmd output [%s]", output.c_str());
  if (!Fields(output).empty()) return 0;
  ZLOG_CTX_ERROR(771, "IdpsAlarm: idps process is DOWN");
  return 1;
}

bool IdpsInfo::Raise(const std::string& brokers, bool raised) {
  ZLOG_INFO("IdpsAlarm: Kafka Alarm %s", raised ? "raised" : "brought down");
  if (raised && !conditions_.enabled()) {
    ZLOG_INFO("IdpsAlarm: IDS disabled hence ignoring the alarm");
    return false;
  }
  const std::string node(Ctxt::kNodeEntity);
  Ctxt::alarms::AddEntity(kFeature, node, 0);
  const std::string context =
      JsonText({{"transport_node_name", conditions_.transport_node()}, {"messaging_broker_ip", brokers}});
  ZLOG_INFO("IdpsAlarm: Kafka context: %s", context.c_str());
  Ctxt::alarms::PostAlarm(kFeature, node, kKafkaBrokersDown, context, raised);
  if (raised && !conditions_.enabled()) {
    // Switched off meanwhile: the reset of all alarms that comes with it may have been before this one.
    Ctxt::alarms::PostAlarm(kFeature, node, kKafkaBrokersDown, context, false);
    return false;
  }
  return true;
}

}  // namespace IdpsAlarm
