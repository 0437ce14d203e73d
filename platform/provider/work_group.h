#pragma once

#include <boost/intrusive_ptr.hpp>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <typeinfo>
#include <vector>

#include "platform/core/condition.h"
#include "platform/core/ref_counted.h"
#include "platform/core/thread.h"

namespace zem {

namespace metrics {
class Counter;
class Frequency;
class Gauge;
class Latency;
class Registry;
}  // namespace metrics

/// A unit of work of a WorkGroup.
class WorkItem {
 public:
  virtual ~WorkItem() = default;
  virtual void Run() = 0;
  /// What it does, for whoever looks at the loop that runs it; lives as long as the process.
  virtual const char* what() const { return typeid(*this).name(); }

 private:
  friend class WorkGroup;
  TimePoint enqueued_;
};

/// Calls `T::Run` of a reference-counted object, which it keeps.
template <class T>
class WorkItemImpl final : public WorkItem {
 public:
  explicit WorkItemImpl(boost::intrusive_ptr<T> object) : object_(std::move(object)) {}
  void Run() override { object_->Run(); }
  const char* what() const override { return typeid(T).name(); }

 private:
  boost::intrusive_ptr<T> object_;
};

/// A work item made of a function.
std::shared_ptr<WorkItem> MakeWorkItem(std::function<void()> function);

/// A named pool of threads over one FIFO.
///
/// Threads: `Enqueue` from any thread; `Start` and `Stop` by the owner.
class WorkGroup : public RefCounted<WorkGroup, IRefCountable> {
 public:
  static constexpr int64_t kUnbounded = -1;

  /// `metrics` must outlive the group.
  WorkGroup(std::string name, metrics::Registry& metrics, int64_t queue_limit);
  ~WorkGroup() override;

  void Start(int threads);

  /// False, and nothing else happens, when `queue_limit` items wait already or the group was stopped.
  [[nodiscard]] bool Enqueue(std::shared_ptr<WorkItem> item);

  /// Runs what is queued, then ends and joins the threads.
  void Stop();

  const std::string& name() const { return name_; }

 private:
  void Work();

  const std::string name_;
  const int64_t queue_limit_;
  metrics::Gauge& queue_length_;
  metrics::Frequency& enqueue_frequency_;
  metrics::Frequency& dequeue_frequency_;
  metrics::Latency& queued_time_;
  metrics::Latency& processing_time_;
  metrics::Gauge& idle_count_;

  std::mutex mutex_;  // guards all below
  Condition changed_;
  bool running_ = false;
  bool stopped_ = false;
  int idle_ = 0;
  std::deque<std::shared_ptr<WorkItem>> queue_;
  std::vector<NativeThread> threads_;
};

}  // namespace zem
