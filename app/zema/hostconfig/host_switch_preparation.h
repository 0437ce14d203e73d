#pragma once

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem::zema {

struct HostConfigContext;

/// Prepares a configuration, and sends the host the settings that it needs, before the configuration is
/// checked.
///
/// Threads: the host configuration's.
class HostSwitchPreparation {
 public:
  using Config = orlane::zem::switching::HostConfigMsg;

  explicit HostSwitchPreparation(HostConfigContext& context) : context_(context) {}

  /// Prepares the configuration of a host that has no id yet.
  void PrepareFirst(Config* config);
  /// Prepares the configuration of a host that already has an id.
  void PrepareNext(Config* config);

 private:
  void ConvertSwitchTypes(Config* config);
  void SetSecurityProperty(const Config& config);
  void DisableRuntimeUpdates(const Config& config);

  HostConfigContext& context_;
};

}  // namespace zem::zema
