#include "app/zemda/base/interruption.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

namespace ZemDa {

Interruption::Interruption() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wake_.get() < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void Interruption::Request() {
  const std::lock_guard lock(mutex_);
  requested_ = true;
  const uint64_t one = 1;
  static_cast<void>(::write(wake_.get(), &one, sizeof(one)) == 0);  // a full counter is readable as well
  changed_.NotifyAll();
  if (action_) action_();
}

void Interruption::TakeLocked() {
  if (!std::exchange(requested_, false)) return;
  uint64_t count = 0;
  static_cast<void>(::read(wake_.get(), &count, sizeof(count)) == 0);
  throw Interrupted();
}

void Interruption::Point() {
  const std::lock_guard lock(mutex_);
  TakeLocked();
}

void Interruption::SleepFor(zem::Duration duration) {
  std::unique_lock lock(mutex_);
  changed_.WaitFor(lock, duration, [this] { return requested_; });
  TakeLocked();
}

void Interruption::Sleep() {
  std::unique_lock lock(mutex_);
  changed_.Wait(lock, [this] { return requested_; });
  TakeLocked();
}

Interruption::Hook::Hook(Interruption& interruption, std::function<void()> action)
    : interruption_(interruption) {
  const std::lock_guard lock(interruption_.mutex_);
  interruption_.action_ = std::move(action);
  if (interruption_.requested_) interruption_.action_();
}

Interruption::Hook::~Hook() {
  const std::lock_guard lock(interruption_.mutex_);
  interruption_.action_ = nullptr;
}

}  // namespace ZemDa
