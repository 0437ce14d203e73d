#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "app/ctxteng/alarm/alarm_manager.h"
#include "platform/core/unique_fd.h"

namespace IdpsAlarm {

inline constexpr uint16_t kFeature = 33;
/// Posted when no broker of the intrusion detection client can be reached.
inline constexpr uint16_t kKafkaBrokersDown = 83;

/// What the alarms of intrusion detection need to know about the node.
struct IdpsConditions {
  std::function<bool()> enabled;
  /// The intrusion detection client has at least one rule.
  std::function<bool()> has_rules;
  /// The transport node's uuid as text; read when it is needed.
  std::function<std::string()> transport_node;
  /// The id of the host's DPU; empty on a host without one.
  std::string dpu_id;
};

/// Samples the intrusion detection process on this host: whether it runs, and its memory.
///
/// Threads: the samples by one thread, the alarm manager's; `Interrupt` and `Raise` from any.
class IdpsInfo {
 public:
  /// Throws std::system_error when the system has no descriptor left.
  explicit IdpsInfo(IdpsConditions conditions);

  /// The events of feature 33 on this kind of host.  They refer to this object.
  std::vector<Ctxt::AlarmEvent> Events();

  /// Ends the command that a sample waits for, and those of later samples.
  void Interrupt();

  /// Raises or clears the alarm for the brokers (a list of addresses).  Returns false for an alarm that is
  /// not raised because intrusion detection is off.
  bool Raise(const std::string& brokers, bool raised);

 private:
  std::optional<uint32_t> MemorySample(uint64_t round);
  std::optional<uint32_t> ProcessDownSample();
  uint32_t ReadMemoryUsage();
  /// Empty when the process group cannot be found.
  std::string GroupId();
  std::string MemoryContext(const std::string& entity_id, uint32_t usage, uint32_t threshold) const;
  /// Runs a command of the host; the exit code, or -1.
  int Run(const std::string& command, std::string* output) const;

  const IdpsConditions conditions_;
  zem::UniqueFd interrupt_;
  std::string group_id_;
  uint32_t last_mem_usage_ = 0;
  uint64_t sampled_round_ = 0;  // of last_mem_usage_
};

}  // namespace IdpsAlarm
