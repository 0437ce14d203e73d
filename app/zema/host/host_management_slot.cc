#include "app/zema/host/host_management_slot.h"

#include <utility>

#include "app/zema/host/corvd_handler.h"
#include "app/zema/ports/vif_request.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

void HostManagementSlot::Set(CorvdHandler* handler) {
  std::unique_lock lock(mutex_);
  if (handler == nullptr && handler_ != nullptr) handler_->Stop();
  handler_ = handler;
  left_.Wait(lock, [this] { return waiting_ == 0; });
}

void HostManagementSlot::AddRequest(std::shared_ptr<VifRequest> request) {
  const std::lock_guard lock(mutex_);
  if (handler_ != nullptr) return handler_->AddRequest(std::move(request));
  ZLOG_INFO("no host management to serve [%s]", request->ToString().c_str());
}

void HostManagementSlot::SetPrecreatedPorts(std::shared_ptr<PrecreatedPorts::Map> ports) {
  const std::lock_guard lock(mutex_);
  if (handler_ != nullptr) handler_->SetPrecreatedPorts(std::move(ports));
}

void HostManagementSlot::WaitForConnection(int seconds) {
  std::unique_lock lock(mutex_);
  CorvdHandler* const handler = handler_;
  if (handler == nullptr) return;
  ++waiting_;
  lock.unlock();
  handler->WaitForCorvdConnection(seconds);
  lock.lock();
  --waiting_;
  left_.NotifyAll();
}

void HostManagementSlot::AllowResync(bool allowed) {
  const std::lock_guard lock(mutex_);
  if (handler_ != nullptr) handler_->AllowResync(allowed);
}

}  // namespace zem::zema
