#include "app/ctxteng/engine/start_barrier.h"

#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr std::chrono::seconds kPatience{60};

}  // namespace

void StartBarrier::WaitForStart() {
  ZLOG_INFO("CtxtCore: Wait for context engine to start");
  std::unique_lock lock(mutex_);
  if (changed_.WaitFor(lock, kPatience, [this] { return started_; })) return;
  lock.unlock();
  ZLOG_WARN("CtxtCore: The context engine has not started, going on without it");
}

void StartBarrier::NotifyStarted() {
  {
    std::lock_guard lock(mutex_);
    if (started_) return;
    started_ = true;
    changed_.NotifyAll();
  }
  ZLOG_INFO("CtxtCore: Notify context engine has been started");
}

}  // namespace Ctxt
