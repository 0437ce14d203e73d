#include "app/zemda/delivery/message_monitor.h"

#include <chrono>
#include <utility>

#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"

namespace ZemDa {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

}  // namespace

MessageMonitor::MessageMonitor(std::function<void()> timed_out)
    : Thread("MessageMonitor"), timed_out_(std::move(timed_out)) {}

MessageMonitor::~MessageMonitor() { End(); }

void MessageMonitor::Restart() {
  if (started()) {
    Stop();
  } else {
    Start();
  }
}

void MessageMonitor::End() {
  if (!started()) return;
  stop_ = true;
  Stop();
  Join();
  CleanUp();
}

void MessageMonitor::operator()() {
  ZLOG_INFO("Message Monitor Timer Thread Started.");
  while (!stop_) {
    try {
      interruption().SleepFor(std::chrono::seconds(kSeconds));
      ZLOG_INFO("Message Monitor Timer timedout, initiating full sync");
      const zem::LoopStep step("full sync is due");
      timed_out_();
    } catch (const Interrupted&) {
      ZLOG_DEBUG("Message Monitor Timer Thread interrupted.");
    }
  }
}

}  // namespace ZemDa
