#include "app/ctxteng/idsevents/workers.h"

#include <mutex>
#include <set>
#include <utility>

#include "platform/core/condition.h"

namespace IdsEvtEng {

// Shared with the threads, of which one may outlive the object.
struct Workers::Ended {
  std::mutex mutex;  // guards numbers
  zem::Condition changed;
  std::set<size_t> numbers;
};

Workers::Workers() : ended_(std::make_shared<Ended>()) {}
Workers::~Workers() = default;

void Workers::Start(std::string name, std::function<void()> body) {
  const size_t number = workers_.size();
  zem::NativeThread::Options options;
  options.name = std::move(name);
  zem::NativeThread thread(std::move(options), [ended = ended_, number, body = std::move(body)]() mutable {
    body();
    body = nullptr;
    const std::lock_guard lock(ended->mutex);
    ended->numbers.insert(number);
    ended->changed.NotifyAll();
  });
  workers_.push_back({std::move(thread), number});
}

size_t Workers::Join(zem::Duration patience) {
  std::set<size_t> numbers;
  {
    std::unique_lock lock(ended_->mutex);
    ended_->changed.WaitFor(lock, patience, [this] { return ended_->numbers.size() == workers_.size(); });
    numbers = ended_->numbers;
  }
  size_t left = 0;
  for (Worker& worker : workers_) {
    if (numbers.contains(worker.number)) {
      worker.thread.Join();
      continue;
    }
    // Its end would wait for it.
    static_cast<void>(new zem::NativeThread(std::move(worker.thread)));
    ++left;
  }
  workers_.clear();
  return left;
}

}  // namespace IdsEvtEng
