#include "mpaclient/calls/service_observer.h"

#include "framework/log/log.h"

namespace zem {
namespace {
constexpr LogSource kLog{"mpa-client"};
}  // namespace

ServiceObserver::ServiceObserver(std::weak_ptr<AnswerHandler> handler, const char* name, uint32_t sequence)
    : handler_(std::move(handler)), name_(name), sequence_(sequence) {}

void ServiceObserver::PrepareResponse(BusRecord response, BusHeader header) {
  response_ = std::move(response);
  response_header_ = std::move(header);
}

void ServiceObserver::Next(const orlane::zem::messaging::GenericUnifiedMsg& message) {
  ZLOG_DEBUG("%s::Next Begin", name_);
  if (handler_.expired()) {
    ZLOG_WARN("MpaClient has been destroyed already.");
    return;
  }
  answer_ = message;
  ZLOG_DEBUG("%s::Next End", name_);
}

void ServiceObserver::CallStatus(const rpc::Status& status) {
  const std::unique_ptr<ServiceObserver> self(this);
  if (!status.ok()) ZLOG_INFO("%s::CallStatus (%s)", name_, status.ToString().c_str());
  const auto handler = handler_.lock();
  if (!handler) {
    ZLOG_WARN("MpaClient has been destroyed already.");
    return;
  }
  handler->HandleMpResponse(status, answer_, this);
}

void VoidMsgObserver::Next(const orlane::zem::VoidMsg&) { ZLOG_DEBUG("VoidMsgObserver::Next"); }

void VoidMsgObserver::CallStatus(const rpc::Status& status) {
  const std::unique_ptr<VoidMsgObserver> self(this);
  if (!status.ok()) {
    ZLOG_INFO("[%s] VoidMsgObserver::CallStatus (%s)", app_type_.c_str(), status.ToString().c_str());
  }
}

}  // namespace zem
