#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

#include "app/zema/hostconfig/follow_up_tasks.h"

namespace zem {
class Timer;
class TimerFactory;
namespace Tarvik {
class ControllerListApp;
}
}  // namespace zem

namespace zem::zema {

class ConfigFiles;
class HealthRecord;
class HighPerformanceProfile;
class HostConfigCallbacks;
class HostManagementSlot;
class LumCommands;
class MpaMessageSender;
class OptionsStore;
class PortOpsManager;
class WorkerTable;
class ZemManager;
struct EndpointContext;

/// Work on this host that accompanies a host configuration or follows its answer.
///
/// Threads: the owner calls SetHostManagement and Stop; any thread may call AddVifRequest and
/// SetPrecreatedPorts; the other operations run on the worker of host configurations.
class FollowUps final : public FollowUpTasks {
 public:
  /// The objects that the follow-ups use; all of them outlive this object.
  struct Settings {
    WorkerTable& workers;
    TimerFactory& timers;
    LumCommands& lum;
    ZemManager& manager;
    HealthRecord& health;
    HostConfigCallbacks& callbacks;
    HostManagementSlot& host_management;
    /// Null where no controller list is kept.
    Tarvik::ControllerListApp* controllers;
    std::shared_ptr<EndpointContext> endpoints;
    ConfigFiles& files;
    OptionsStore& options;
    PortOpsManager& ports;
    HighPerformanceProfile& high_performance;
    MpaMessageSender* sender;
    /// Waits; returns false when the agent or this start is stopping.
    std::function<bool(Duration)> pause;
  };

  explicit FollowUps(Settings settings);
  ~FollowUps() override;

  /// Cancels the work scheduled for later; RunLater ignores new work from then on.
  void Stop();

  void BeginConfiguration() override;
  void FetchAddresses(const Origin& origin, const std::vector<std::string>& devices, int retries) override;
  void FetchIpv6Addresses(const Origin& origin, const std::map<std::string, std::string>& kinds,
                          int retries) override;
  void HotSwapUnusedCkln(int initial_delay, int retry_interval) override;
  void ApplyHighPerformanceProfile() override;
  void WaitForHostManagement(int seconds) override;
  void AllowResync(bool allowed) override;
  void UpdateTnUuidInFile(const std::string& id) override;
  void Applied(const orlane::zem::switching::HostConfigMsg& config) override;
  void LeaveMaintenance() override;
  void RunLater(Duration delay, std::function<void()> work) override;
  void RunBehind(std::function<void()> work) override;

 private:
  const Settings settings_;
  std::atomic<bool> high_performance_running_{false};
  std::mutex later_mutex_;  // guards what follows
  std::shared_ptr<Timer> later_;
  bool stopped_ = false;
};

}  // namespace zem::zema
