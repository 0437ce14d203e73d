#include "app/ctxteng/idsevents/workers.h"

#include <utility>

#include "platform/core/loop_monitor.h"

namespace IdsEvtEng {

void Workers::Start(std::string name, std::function<void()> body) {
  zem::NativeThread::Options options;
  options.name = name;
  threads_.emplace_back(std::move(options), [name = std::move(name), body = std::move(body)] {
    const zem::LoopThread loop(name, zem::LoopKind::kWorker);
    body();
  });
}

size_t Workers::Join(zem::Duration patience) {
  const zem::TimePoint deadline = zem::Clock::Process().Now() + patience;
  size_t left = 0;
  for (zem::NativeThread& thread : threads_) {
    if (thread.JoinUntil(deadline)) continue;
    thread.Detach();
    ++left;
  }
  threads_.clear();
  return left;
}

}  // namespace IdsEvtEng
