#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/healthcheck/check_values.h"
#include "app/healthcheck/health_checker.h"
#include "app/healthcheck/kln_library.h"
#include "platform/core/clock.h"

namespace zem {
class AsioZemProvider;
class Timer;
}  // namespace zem

namespace zem::Tarvik {

/// Tests which VLANs and which MTU pass on each uplink of a switch.  The host's switch does it: this sets the
/// test's properties, waits as long as the request says, reads the uplinks' results and clears the
/// properties.
///
/// Limits: 64 switches are tested at a time.
class VlanMtuChecker final : public HealthChecker, public std::enable_shared_from_this<VlanMtuChecker> {
 public:
  /// Puts a task on the application's worker; false when it takes no more.
  using Post = std::function<bool(std::function<void()>)>;

  VlanMtuChecker(AsioZemProvider& provider, const HealthReports& reports, Post post, std::string library);

  bool Supports(const orlane::zem::healthcheck::HealthCheckRequestMsg& request) const override;
  bool Accepts(const orlane::zem::healthcheck::HealthCheckRequestMsg& request) const override;
  void Check(PendingResponse response) override;
  bool Init() override;
  void Stop() override;

 private:
  struct Test {
    TimePoint start;
    orlane::zem::UuidMsg round_id;
    uint32_t test_time_s = 0;
    std::string switch_id;
  };

  std::string SwitchIdFor(const std::string& name) const;
  bool SetProperty(const std::string& dvs, const char* property, std::string_view value,
                   uint32_t flags) const;
  void PostCollection();
  void CollectTests();
  void Collect(const std::string& name, const Test& test) const;
  orlane::zem::healthcheck::VlanMtuCheckResultEntryMsg ReadUplink(const std::string& dvs,
                                                                  const std::string& port) const;
  bool ReadResult(const std::string& dvs, const std::string& port, const char* property, const char* what,
                  CheckResult* result) const;
  uint32_t ClearProperties(const std::string& dvs) const;

  AsioZemProvider& provider_;
  const Post post_;
  KlnLibrary library_;
  std::map<std::string, Test> tests_;  // by the switch's name; of the worker
  std::shared_ptr<Timer> check_timer_;
  std::atomic<bool> collection_posted_{false};
  std::atomic<bool> stopped_{false};  // no further switch or uplink is asked for
};

}  // namespace zem::Tarvik
