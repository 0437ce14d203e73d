#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "framework/tasks/runnable.h"
#include "platform/core/clock.h"

namespace zem {
class HostIdentity;
}  // namespace zem

namespace zem::zema {

class HealthRecord;
class OptionsStore;
struct RealizationOptions;
struct VifRequest;

/// Simulates the attaches of many VMs, in batches, to test a manager under load.
///
/// Threads: a worker of its own, since it sleeps.
class ScaleSimTask final : public Runnable {
 public:
  /// All members are set, and the objects outlive the task.
  struct Settings {
    HealthRecord* health = nullptr;
    HostIdentity* host = nullptr;
    OptionsStore* options = nullptr;
    std::function<void(std::shared_ptr<VifRequest>)> add_request;
    /// Sleeps; returns false when the daemon is stopping.
    std::function<bool(Duration)> pause;
  };

  explicit ScaleSimTask(Settings settings) : settings_(std::move(settings)) {}

  void Run() override;
  bool IsBatchable() const override { return false; }

 private:
  template <class Ready>
  bool Await(const char* too_late, const Ready& ready);
  void AddRequests(const RealizationOptions& options, const std::vector<std::string>& switches);

  const Settings settings_;
};

}  // namespace zem::zema
