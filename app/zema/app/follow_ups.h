#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "app/zema/hostconfig/follow_up_tasks.h"
#include "app/zema/vif/precreated_ports.h"
#include "platform/core/condition.h"

namespace zem::zema {

class CorvdHandler;
struct EndpointContext;
struct VifRequest;

/// What this host does after a configuration.
///
/// Threads: the setters by the owner, the rest the host configuration's.
class FollowUps final : public FollowUpTasks {
 public:
  /// Null when it goes: it is told to stop, and nobody waits for it any more when this returns.
  void SetHostManagement(CorvdHandler* handler);

  /// A request for the threads of the host management; dropped while there is none.  Does not wait.
  void AddVifRequest(std::shared_ptr<VifRequest> request);
  /// Ports that wait for their VIFs.
  void SetPrecreatedPorts(std::shared_ptr<PrecreatedPorts::Map> ports);

  /// Before the first configuration.
  void SetEndpoints(std::shared_ptr<EndpointContext> endpoints) { endpoints_ = std::move(endpoints); }

  /// Before the first configuration.
  void SetUpdateTnUuid(std::function<void(const std::string&)> update) {
    update_tn_uuid_ = std::move(update);
  }

  /// Before the first configuration: what makes the tasks.
  void SetTasks(std::function<void(int initial_delay, int retry_interval)> hot_swap,
                std::function<void()> high_performance) {
    hot_swap_ = std::move(hot_swap);
    high_performance_ = std::move(high_performance);
  }

  void BeginConfiguration() override;
  void FetchAddresses(const Origin& origin, const std::vector<std::string>& devices, int retries) override;
  void FetchIpv6Addresses(const Origin& origin, const std::map<std::string, std::string>& kinds,
                          int retries) override;
  void HotSwapUnusedCkln(int initial_delay, int retry_interval) override {
    hot_swap_(initial_delay, retry_interval);
  }
  void ApplyHighPerformanceProfile() override { high_performance_(); }
  void WaitForHostManagement(int seconds) override;
  void AllowResync(bool allowed) override;
  void UpdateTnUuidInFile(const std::string& id) override { update_tn_uuid_(id); }

 private:
  std::shared_ptr<EndpointContext> endpoints_;
  std::function<void(const std::string&)> update_tn_uuid_ = [](const std::string&) {};
  std::function<void(int, int)> hot_swap_ = [](int, int) {};
  std::function<void()> high_performance_ = [] {};
  std::mutex mutex_;  // guards what follows
  Condition left_;
  CorvdHandler* handler_ = nullptr;
  int waiting_ = 0;
};

}  // namespace zem::zema
