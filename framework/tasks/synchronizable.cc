#include "framework/tasks/synchronizable.h"

#include "framework/log/log.h"

namespace zem {
namespace {
constexpr LogSource kLog{"tarvik", "zema"};
constexpr std::chrono::seconds kLongWait{11};
}  // namespace

void Synchronizable::Lock(const char* file, int line) {
  std::unique_lock lock(mutex_);
  if (held_) {
    const TimePoint start = Clock::Process().Now();
    freed_.Wait(lock, [this] { return !held_; });
    const auto waited = std::chrono::duration_cast<std::chrono::seconds>(Clock::Process().Now() - start);
    if (waited >= kLongWait) {
      ZLOG_WARN("Synchronizable lock took [%ld] on threadId [%ld], filename [%s] and line No. [%d]",
                static_cast<long>(waited.count()), static_cast<long>(pthread_self()), file, line);
    }
  }
  held_ = true;
  holder_ = {file, line, pthread_self()};
}

void Synchronizable::Unlock() {
  std::lock_guard lock(mutex_);
  held_ = false;
  holder_ = Holder();
  freed_.NotifyOne();
}

Synchronizable::Holder Synchronizable::holder() const {
  std::lock_guard lock(mutex_);
  return holder_;
}

}  // namespace zem
