#include "app/healthcheck/health_reports.h"

#include "framework/log/log.h"

namespace zem::Tarvik {
namespace {

using orlane::zem::healthcheck::HealthCheckReportMsg;

constexpr LogSource kLog{"tarvik", "healthcheck"};

constexpr const char* kReportType = "com.orlane.zem.healthcheck.Healthcheck.HealthCheckReportMsg";
constexpr const char* kRoutingKey = "com.orlane.zem.healthcheck.HealthCheck";
constexpr const char* kUnknown = "UNKNOWN";

}  // namespace

void HealthReports::SendStatus(const PendingResponse& response, Status status, bool publish) const {
  if (!response.request.has_round_id()) {
    ZLOG_ERROR("MPA00103", "The reqMsg of status is NULL or there is no round_id in reqMsg");
    return;
  }
  HealthCheckReportMsg report;
  *report.mutable_round_id() = response.request.round_id();
  report.mutable_request_status()->set_status(status);
  if (SendMessageToMP(report, &response, publish)) {
    ZLOG_INFO("Sent request status to MP/HOST: %d", status);
  } else {
    ZLOG_ERROR("MPA00103", "Failed to send request status to MP/HOST: %d", status);
  }
}

bool HealthReports::SendMessageToMP(const HealthCheckReportMsg& report, const PendingResponse* response,
                                    bool publish) const {
  ZLOG_INFO("[%s] publish %d correlationId is %s replyTo is %s", __func__, publish ? 1 : 0,
            response != nullptr ? response->correlation_id.c_str() : kUnknown,
            response != nullptr ? response->reply_to.c_str() : kUnknown);
  std::string payload;
  if (!report.SerializeToString(&payload)) {
    ZLOG_ERROR("ERR_MPA_INVALID_PAYLOAD", "ERROR in serializing health check report message");
    return false;
  }
  auto message = vertical_.PrepareAs(publish ? kRmqClientPublish : kRmqClientRpcResponse, kReportType,
                                     std::move(payload), publish ? "" : response->correlation_id,
                                     publish ? "" : response->reply_to);
  if (publish) message.record.SetRoutingKey(kRoutingKey);
  if (vertical_.SendPrepared(message) == VerticalClient::Sent::kSent) return true;
  ZLOG_ERROR("MPA00103", "ERROR in sending health check status report to MP");
  return false;
}

}  // namespace zem::Tarvik
