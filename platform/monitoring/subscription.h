#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/core/retry_policy.h"
#include "platform/monitoring/instances.h"
#include "proto/monitoring/monitoring_services.rpc.h"

namespace zem {
class AsioZemProvider;
}

namespace zem::monitoring {

/// A source's connection to the alarms provider.
///
/// Threads: Start and Stop one after the other; the rest from any thread.  What it does runs on a thread of
/// its own.
class Subscription : public std::enable_shared_from_this<Subscription> {
 public:
  Subscription(std::string source_id, uint16_t feature_id);
  ~Subscription();

  void Start();
  void Stop();

  /// Returns false when there are too many instances.
  [[nodiscard]] bool Set(const Instances::Key& key, bool raised, const std::string& context);
  void Clear(const Instances::Key& key);

 private:
  using Stub = orlane::zem::monitoring::MonitoringProviderService::Stub;
  using Request = orlane::zem::monitoring::MonitoringSubClientRequestMsg;
  class RequestObserver;
  class ReportObserver;

  void MakeStub();
  void TakeStub(std::optional<Stub> stub);
  void StartAgain(uint64_t connection);
  void HandleRequest(uint64_t connection, const Request& request);
  void Report();
  void ReportAgain();
  void ReportEnded(uint64_t connection, bool taken);
  void RunLater(void (Subscription::*work)());

  const std::string source_id_;
  const std::unique_ptr<AsioZemProvider> provider_;

  std::mutex mutex_;  // guards what follows
  Instances instances_;
  std::optional<Stub> stub_;   // nothing: no provider
  uint64_t connection_ = 0;    // counts the stubs: what comes from an earlier one is late
  bool subscribed_ = false;    // welcomed by the provider
  bool reporting_ = false;     // a report is under way
  bool report_waits_ = false;  // until the delay after a failure is over
  RetryPolicy delays_{1000, 5000, 2.0, -1};
  bool stopped_ = false;
};

}  // namespace zem::monitoring
