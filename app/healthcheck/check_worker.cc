#include "app/healthcheck/check_worker.h"

#include <chrono>

#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "healthcheck"};

constexpr const char* kName = "health-check";
constexpr size_t kMostTasks = 16;
constexpr auto kPatience = std::chrono::seconds(5);

}  // namespace

CheckWorker::CheckWorker() : queue_(std::make_shared<BoundedQueue<Task>>(kName, kMostTasks)) {}

CheckWorker::~CheckWorker() { Stop(); }

void CheckWorker::Start() {
  NativeThread::Options options;
  options.name = kName;
  thread_ = NativeThread(std::move(options), [queue = queue_] {
    const LoopThread loop(kName, LoopKind::kWorker);
    while (const auto task = queue->Pop()) {
      const LoopStep step("check");
      (*task)();
    }
  });
}

void CheckWorker::Stop() {
  queue_->Close();
  if (!thread_.joinable()) return;
  if (thread_.JoinUntil(Clock::Process().Now() + kPatience)) return;
  ZLOG_WARN("The switch library does not return, its thread is left behind");
  thread_.Detach();
}

}  // namespace zem::Tarvik
