#include "app/zema/app/follow_ups.h"

#include "app/zema/app/corvd_handler.h"

namespace zem::zema {

void FollowUps::SetHostManagement(CorvdHandler* handler) {
  std::unique_lock lock(mutex_);
  if (handler == nullptr && handler_ != nullptr) handler_->Stop();
  handler_ = handler;
  left_.Wait(lock, [this] { return waiting_ == 0; });
}

void FollowUps::WaitForHostManagement(int seconds) {
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

}  // namespace zem::zema
