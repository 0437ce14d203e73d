#include "platform/provider/work_group.h"

#include "platform/core/lib_log.h"
#include "platform/core/loop_monitor.h"
#include "platform/metrics/metrics.h"

namespace zem {
namespace {

class FunctionItem final : public WorkItem {
 public:
  explicit FunctionItem(std::function<void()> function) : function_(std::move(function)) {}
  void Run() override { function_(); }
  const char* what() const override { return function_.target_type().name(); }

 private:
  std::function<void()> function_;
};

}  // namespace

std::shared_ptr<WorkItem> MakeWorkItem(std::function<void()> function) {
  return std::make_shared<FunctionItem>(std::move(function));
}

WorkGroup::WorkGroup(std::string name, metrics::Registry& metrics, int64_t queue_limit)
    : name_(std::move(name)),
      queue_limit_(queue_limit),
      queue_length_(metrics.gauge("work_group/queue/length", name_)),
      enqueue_frequency_(metrics.frequency("work_group/queue/enqueue_freq", name_)),
      dequeue_frequency_(metrics.frequency("work_group/queue/dequeue_freq", name_)),
      queued_time_(metrics.latency("work_group/item/queued_time", name_)),
      processing_time_(metrics.latency("work_group/item/processing_time", name_)),
      idle_count_(metrics.gauge("work_group/thread/idle_count", name_)) {}

WorkGroup::~WorkGroup() { Stop(); }

void WorkGroup::Start(int threads) {
  std::lock_guard lock(mutex_);
  running_ = true;
  stopped_ = false;
  for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { Work(); });
}

bool WorkGroup::Enqueue(std::shared_ptr<WorkItem> item) {
  std::lock_guard lock(mutex_);
  if (stopped_) return false;
  if (queue_limit_ != kUnbounded && static_cast<int64_t>(queue_.size()) >= queue_limit_) return false;
  item->enqueued_ = Clock::Process().Now();
  queue_.push_back(std::move(item));
  queue_length_.Set(static_cast<int64_t>(queue_.size()));
  enqueue_frequency_.Mark();
  if (idle_ > 0) changed_.NotifyOne();
  return true;
}

void WorkGroup::Work() {
  const LoopThread loop(name_, LoopKind::kWorker);
  std::unique_lock lock(mutex_);
  for (;;) {
    while (queue_.empty()) {
      if (!running_) return;
      ++idle_;
      idle_count_.Set(idle_);
      changed_.Wait(lock);
      --idle_;
      idle_count_.Set(idle_);
    }
    const std::shared_ptr<WorkItem> item = std::move(queue_.front());
    queue_.pop_front();
    queue_length_.Set(static_cast<int64_t>(queue_.size()));
    dequeue_frequency_.Mark();
    const TimePoint begin = Clock::Process().Now();
    queued_time_.Record(begin - item->enqueued_);
    lock.unlock();
    try {
      const LoopStep step(item->what());
      item->Run();
    } catch (const std::exception& error) {
      ZEM_LIB_LOG(Library::kNet, kLogError, "work group %s: an item threw: %s", name_.c_str(), error.what());
    }
    processing_time_.Record(Clock::Process().Now() - begin);
    lock.lock();
  }
}

void WorkGroup::Stop() {
  std::vector<NativeThread> joined;
  {
    std::lock_guard lock(mutex_);
    stopped_ = true;
    running_ = false;
    changed_.NotifyAll();
    joined.swap(threads_);
  }
}

}  // namespace zem
