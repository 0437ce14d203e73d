#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "framework/tasks/runnable.h"
#include "platform/core/clock.h"

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem::zema {

class ConfigFiles;
class HighPerformanceProfile;
class LumCommands;
class MpaMessageSender;

/// Waits until the host is in maintenance mode, applies the pending performance settings to the datapath and
/// reports the outcome to the manager.
///
/// Threads: its own worker.
class HighPerformanceProfileTask final : public Runnable {
 public:
  /// All fields must be set, except the sender; everything outlives the task.
  struct Settings {
    LumCommands& lum;
    ConfigFiles& files;
    HighPerformanceProfile& profile;
    MpaMessageSender* sender = nullptr;
    /// Reads a host property of a switch; returns the library's code.
    std::function<uint32_t(const std::string& dvs, const std::string& property, std::string* value)>
        host_prop;
    /// `highPerformanceProfile.retryIntervalSec`.
    std::function<int()> retry_interval;
    /// Waits; false when the agent or its worker is stopping.
    std::function<bool(Duration)> pause;
    /// Called at the end, after which another task may be queued.
    std::function<void()> done;
  };

  explicit HighPerformanceProfileTask(Settings settings) : settings_(std::move(settings)) {}

  void Run() override;
  bool IsBatchable() const override { return false; }

 private:
  bool Pending(const orlane::zem::switching::HostConfigMsg& config) const;
  /// Returns false when nothing is left to wait for.
  bool Apply(const orlane::zem::switching::HostConfigMsg& config);
  void Tell(const orlane::zem::switching::HostConfigMsg& config) const;

  const Settings settings_;
  std::vector<std::string> errors_;
};

}  // namespace zem::zema
