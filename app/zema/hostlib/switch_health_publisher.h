#pragma once

#include <atomic>
#include <string>

#include "app/zema/state/health_record.h"
#include "framework/tasks/outcome.h"

namespace zem::zema {

class ConfigOpsManager;

/// Puts the realization's health onto the switches, as properties of this host.
///
/// Threads: all operations from any thread.
/// Ownership: holds the manager by reference.
class SwitchHealthPublisher final : public HealthPublisher {
 public:
  explicit SwitchHealthPublisher(ConfigOpsManager& switches) : switches_(switches) {}

  Outcome SetProperty(const std::string& host_switch, const std::string& name, const void* data, size_t size,
                      uint32_t flags) override;
  /// Returns true also when the property was absent.
  Outcome RemoveProperty(const std::string& host_switch, const std::string& name) override;
  bool SecurityOnly() override { return security_only_.load(); }

  /// Whether this host serves only security; false until it is set.
  void SetSecurityOnly(bool only) { security_only_.store(only); }

 private:
  ConfigOpsManager& switches_;
  std::atomic<bool> security_only_{false};
};

}  // namespace zem::zema
