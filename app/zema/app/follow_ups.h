#pragma once

#include <memory>
#include <mutex>

#include "app/zema/hostconfig/follow_up_tasks.h"
#include "platform/core/condition.h"

namespace zem::zema {

class CorvdHandler;
struct EndpointContext;

/// What this host does after a configuration: waits for the host management daemon.  The rest is as by
/// default.
///
/// Threads: SetHostManagement by the owner, the rest the host configuration's.
class FollowUps final : public FollowUpTasks {
 public:
  /// Null when it goes: it is told to stop, and nobody waits for it any more when this returns.
  void SetHostManagement(CorvdHandler* handler);

  /// Before the first configuration.
  void SetEndpoints(std::shared_ptr<EndpointContext> endpoints) { endpoints_ = std::move(endpoints); }

  void FetchAddresses(const Origin& origin, const std::vector<std::string>& devices, int retries) override;
  void FetchIpv6Addresses(const Origin& origin, const std::map<std::string, std::string>& kinds,
                          int retries) override;
  void WaitForHostManagement(int seconds) override;

 private:
  std::shared_ptr<EndpointContext> endpoints_;
  std::mutex mutex_;  // guards what follows
  Condition left_;
  CorvdHandler* handler_ = nullptr;
  int waiting_ = 0;
};

}  // namespace zem::zema
