#include "app/zemda/delivery/ack_thread.h"

#include <chrono>
#include <exception>
#include <utility>

#include "app/zemda/base/da_properties.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/random.h"
#include "platform/core/thread_name.h"

namespace ZemDa {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

// Nodes that lost the same manager do not come back in one moment.
constexpr uint64_t kSpreadS = 10;

// Leaves the body.
struct Ended {};

}  // namespace

AckThread::AckThread(std::function<void()> timed_out)
    : Thread("AckThread"), timed_out_(std::move(timed_out)) {}

AckThread::~AckThread() { End(); }

uint64_t AckThread::Arm() {
  uint64_t arming = 0;
  {
    const std::lock_guard lock(mutex_);
    armed_ = true;
    arming = ++armings_;
  }
  if (started()) {
    ZLOG_INFO("Re-initializing ACK timer thread to sleep.");
    Stop();
  } else {
    ZLOG_INFO("Starting Ack Timer, to initialize a new ack timer.");
    Start();
  }
  return arming;
}

void AckThread::Disarm() {
  {
    const std::lock_guard lock(mutex_);
    armed_ = false;
  }
  Stop();
}

void AckThread::Disarm(uint64_t arming) {
  {
    const std::lock_guard lock(mutex_);
    if (arming != armings_) return;
    armed_ = false;
  }
  Stop();
}

void AckThread::End() {
  if (!started()) return;
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  Stop();
  Join();
  CleanUp();
  ZLOG_DEBUG("Ack thread stopped.");
}

void AckThread::operator()() {
  ZLOG_DEBUG("Ack Thread Started.");
  try {
    // An interruption may meet any wait of a round; only the stop ends the thread.
    for (;;) {
      try {
        WaitOnce();
      } catch (const Interrupted&) {
        ZLOG_DEBUG("Ack Thread interrupted.");
      }
      ZLOG_DEBUG("Ack Thread Re-intialized.");
    }
  } catch (const Ended&) {
    ZLOG_INFO("Stopping Ack thread.");
  } catch (const std::exception& error) {
    ZLOG_WARN("Exception occurred ,executing ACK thread : %s", error.what());
    CleanUp();
  }
}

uint64_t AckThread::AwaitArmed() {
  for (;;) {
    {
      const std::lock_guard lock(mutex_);
      if (std::exchange(stop_, false)) throw Ended();
      if (armed_) return armings_;
    }
    interruption().Sleep();
  }
}

void AckThread::WaitOnce() {
  zem::SetThreadName("DA:acksleeping");
  const uint64_t arming = AwaitArmed();
  zem::SetThreadName("DA:ackwait");
  const uint64_t seconds = DaProperties::Get()->AckTimeout() + zem::RandomNumber() % kSpreadS;
  interruption().SleepFor(std::chrono::seconds(seconds));
  {
    // The answer may have come, or another message gone, in the moment in which the time was up.
    const std::lock_guard lock(mutex_);
    if (!armed_ || arming != armings_) return;
  }
  ZLOG_INFO("Ack Thread timedout.");
  const zem::LoopStep step("acknowledgement is late");
  timed_out_();
  {
    const std::lock_guard lock(mutex_);
    if (arming == armings_) armed_ = false;
  }
  ZLOG_INFO("ackTimeoutThread execution completed.");
}

}  // namespace ZemDa
