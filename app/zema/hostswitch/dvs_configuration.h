#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "app/zema/proxy/switch_record.h"
#include "platform/core/clock.h"

namespace orlane::zem::switching {
class HostConfigMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

class ErrorSink;
class LumCommands;

/// The settings and operations on which the configuration of the switches depends.
struct DvsConfigurationSettings {
  /// The host was installed from a host profile, which creates the switches itself when the host starts
  /// (`processStatelessQub70NetworkPlugin`).
  bool stateless = false;
  bool migrate_nvs_knls = false;
  /// `hostConfig.dvsReadyPollTimeout`.
  std::chrono::seconds ready_timeout{90};
  /// Waits; false when the daemon is stopping.
  std::function<bool(Duration)> pause;
  /// Applies the records.  When it returns false, it has already reported its errors.
  std::function<bool(const std::vector<std::string>& records)> apply;
};

/// Decides whether and when the switches of a host configuration are applied.  On a host with a profile
/// nothing may be applied until the profile's own switches exist, or both would create them.
///
/// Threads: one, which is not a provider's: waits for the host, up to `ready_timeout` and the commands' time.
class DvsConfiguration {
 public:
  DvsConfiguration(LumCommands& lum, ErrorSink& errors, DvsConfigurationSettings settings);

  /// Returns 0, or -1 with the texts in the errors.  `migrated` is the same as for `BuildSwitchRecords`.
  int ConfigureDvses(const orlane::zem::switching::HostConfigMsg& config, MigratedPnics* migrated);

 private:
  using Config = orlane::zem::switching::HostConfigMsg;

  [[nodiscard]] bool Apply(const Config& config, MigratedPnics* migrated);
  int ConfigureStateless(const Config& config, MigratedPnics* migrated);
  [[nodiscard]] bool TellInstalled(const Config& config);
  [[nodiscard]] bool RealizedByProfile(int switches);
  [[nodiscard]] bool PollReady(int switches);
  /// Sends a command; when it fails, adds the text `problem`, followed by the reply, to the errors.
  [[nodiscard]] bool Send(const char* command, const char* problem);
  void Refuse(const char* local, const std::string& for_manager);

  LumCommands& lum_;
  ErrorSink& errors_;
  const DvsConfigurationSettings settings_;
};

}  // namespace zem::zema
