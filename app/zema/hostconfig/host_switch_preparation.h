#pragma once

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem::zema {

struct HostConfigContext;

/// What is brought into shape in a configuration, and told to the host, before anything is checked.
///
/// Threads: the host configuration's.
class HostSwitchPreparation {
 public:
  using Config = orlane::zem::switching::HostConfigMsg;

  explicit HostSwitchPreparation(HostConfigContext& context) : context_(context) {}

  /// For a host that has no id yet.
  void PrepareFirst(Config* config);
  /// For a host that is in operation.
  void PrepareNext(Config* config);

 private:
  void ConvertSwitchTypes(Config* config);
  void SetSecurityProperty(const Config& config);
  void DisableRuntimeUpdates(const Config& config);

  HostConfigContext& context_;
};

}  // namespace zem::zema
