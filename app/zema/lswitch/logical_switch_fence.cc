#include "app/zema/lswitch/logical_switch_fence.h"

namespace zem::zema {

LogicalSwitchFence::Arrival::Arrival(LogicalSwitchFence& fence) : fence_(fence) {
  const std::lock_guard lock(fence_.mutex_);
  ++fence_.arrivals_;
}

LogicalSwitchFence::Arrival::~Arrival() {
  const std::lock_guard lock(fence_.mutex_);
  if (--fence_.arrivals_ == 0) fence_.changed_.NotifyAll();
}

bool LogicalSwitchFence::AwaitArrivals() {
  std::unique_lock lock(mutex_);
  changed_.Wait(lock, [this] { return arrivals_ == 0 || closed_; });
  return !closed_;
}

void LogicalSwitchFence::Close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  changed_.NotifyAll();
}

}  // namespace zem::zema
