#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "app/healthcheck/check_worker.h"
#include "app/healthcheck/health_reports.h"
#include "framework/tasks/pending_table.h"
#include "mpaclient/vertical/vertical_client.h"

namespace zem {
class Timer;
}

namespace zem::Tarvik {

class HealthChecker;

/// Takes the manager's requests for health checks, accepts or refuses each at once, and hands them to the
/// checker.  Without a checker every request is told that there is none.
///
/// Threads: Start and Stop one after the other.  Requests arrive on the manager's thread; whatever calls the
/// switch library runs on one worker.
/// Ownership: always held by a shared pointer.  The provider must outlive it.
/// Limits: 32 requests wait.
class HealthCheck : public std::enable_shared_from_this<HealthCheck> {
 public:
  explicit HealthCheck(AsioZemProvider& provider, std::string library = "libklnPublic.so");
  ~HealthCheck();
  HealthCheck(const HealthCheck&) = delete;
  HealthCheck& operator=(const HealthCheck&) = delete;

  void Start();
  /// Tests that run are not reported any more.
  void Stop();

 private:
  void Init();
  void MakeChecker();
  void Receive(const VerticalRecord& record);
  PendingResponse FillResponse(const VerticalRecord& record,
                               orlane::zem::healthcheck::HealthCheckRequestMsg request) const;
  bool Accept(const PendingResponse& response);
  void PostPoll();
  void Poll();
  void Evict();

  AsioZemProvider& provider_;
  const std::string library_;
  std::shared_ptr<Timer> poll_timer_;
  std::shared_ptr<Timer> evict_timer_;
  PendingTable<std::string, PendingResponse> waiting_;  // by the round's uuid
  VerticalClient vertical_;
  const HealthReports reports_;
  std::shared_ptr<HealthChecker> checker_;  // null when the host has no switch library
  std::atomic<bool> poll_posted_{false};
  std::atomic<bool> stopping_{false};
  CheckWorker worker_;
};

}  // namespace zem::Tarvik
