#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/core/unique_fd.h"
#include "platform/monitoring/event_source.h"

namespace IdsPollAlarm {

/// What the reporter looks at when it is polled.
struct PollConditions {
  std::function<bool()> enabled;
  /// The firewall has let packets pass uninspected because of overload.
  std::function<bool()> bypassed;
  /// The firewall has dropped packets because of overload.
  std::function<bool()> dropped;
  /// The folder of captures.
  std::string pcap_dir_path;
};

/// Answers the alarm library's polls about intrusion detection: packets that the firewall did not inspect,
/// and the folder of captures.
///
/// Threads: Initialize and Shutdown one after the other; the library's callbacks come on its own threads.
class IdsAlarmReporter {
 public:
  explicit IdsAlarmReporter(PollConditions conditions);
  ~IdsAlarmReporter();
  IdsAlarmReporter(const IdsAlarmReporter&) = delete;
  IdsAlarmReporter& operator=(const IdsAlarmReporter&) = delete;

  /// Makes and starts the event source; without one, which is logged, nothing is reported.
  void Initialize();
  /// No callback runs when this returns.  Calling it twice has no effect.
  void Shutdown();

 private:
  struct Kind;
  static const std::array<Kind, 3> kKinds;

  void OnConfig(const std::vector<EventSourceConfig>& configs);
  void OnPoll(const uint16_t* event_types, size_t count);
  bool Disabled(uint16_t event_type);
  bool Bypassed() const { return conditions_.bypassed(); }
  bool Dropped() const { return conditions_.dropped(); }
  bool DirectoryFull() const;
  void Report(const Kind& kind, bool raised);

  const PollConditions conditions_;
  std::string hostname_ = "unknown";
  zem::UniqueFd interrupt_;
  EventSourceHandle handle_ = nullptr;
  std::mutex mutex_;  // guards disabled_
  std::map<uint16_t, bool> disabled_;
  std::array<bool, 3> raised_{};  // by kind; the poll thread's
};

}  // namespace IdsPollAlarm
