#pragma once

#include <cstdint>
#include <string>

#include "mpaclient/vertical/vertical_client.h"
#include "proto/healthcheck/healthcheck.pb.h"

namespace zem::Tarvik {

/// A request that waits for its check, and how to answer it.
struct PendingResponse {
  std::string reply_to;
  std::string correlation_id;
  orlane::zem::healthcheck::HealthCheckRequestMsg request;
  /// Its acceptance has been told; nothing else may be before.
  bool answered = false;
};

/// Tells the manager about health checks.
///
/// Threads: any.  Ownership: holds the vertical's client by reference.
class HealthReports {
 public:
  enum Status : int32_t {
    kAccepted = 2,
    kEvicted = 3,
    kNoChecker = 4,
    kDuplicate = 5,
    kTooMany = 6,
    kNotSet = 8,
  };

  explicit HealthReports(const VerticalClient& vertical) : vertical_(vertical) {}

  /// Answers the request.
  void Answer(const PendingResponse& response, Status status) const { SendStatus(response, status, false); }
  /// The same status as a message of its own.
  void PublishStatus(const PendingResponse& response, Status status) const {
    SendStatus(response, status, true);
  }
  /// False, after a log line, when it was not sent.
  [[nodiscard]] bool Publish(const orlane::zem::healthcheck::HealthCheckReportMsg& report) const {
    return SendMessageToMP(report, nullptr, true);
  }

 private:
  void SendStatus(const PendingResponse& response, Status status, bool publish) const;
  bool SendMessageToMP(const orlane::zem::healthcheck::HealthCheckReportMsg& report,
                       const PendingResponse* response, bool publish) const;

  const VerticalClient& vertical_;
};

}  // namespace zem::Tarvik
