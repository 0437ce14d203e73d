#pragma once

#include "app/healthcheck/health_reports.h"

namespace zem::Tarvik {

/// One kind of health check.
///
/// Threads: Init and Stop by the owner; the rest on the application's worker.
class HealthChecker {
 public:
  explicit HealthChecker(const HealthReports& reports) : reports_(reports) {}
  virtual ~HealthChecker() = default;
  HealthChecker(const HealthChecker&) = delete;
  HealthChecker& operator=(const HealthChecker&) = delete;

  /// Whether the request is of this kind, and whether it can be served.
  virtual bool Supports(const orlane::zem::healthcheck::HealthCheckRequestMsg& request) const = 0;
  virtual bool Accepts(const orlane::zem::healthcheck::HealthCheckRequestMsg& request) const = 0;
  /// Takes the request over, and tells the manager what becomes of it.
  virtual void Check(PendingResponse response) = 0;
  /// False, after a log line, when the host lacks what the check needs.
  [[nodiscard]] virtual bool Init() = 0;
  virtual void Stop() = 0;

 protected:
  const HealthReports& reports_;
};

}  // namespace zem::Tarvik
