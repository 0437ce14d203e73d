#include "platform/core/loop_monitor.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "platform/core/lib_log.h"

namespace zem {

// The thread alone writes; readers take what they find.  A reader may see the time of one step with the text
// of the next, which the number of the step, read before and after, tells.
class LoopThread::Loop {
 public:
  Loop(std::string_view name, LoopKind kind) : name_(name), kind_(kind) {}

  bool Begin(const char* what) {
    if (what_.load(std::memory_order_relaxed) != nullptr) return false;
    begin_.store(Clock::Process().Now().time_since_epoch().count(), std::memory_order_relaxed);
    steps_.store(steps_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    what_.store(what, std::memory_order_release);
    return true;
  }

  void End() {
    const char* const what = what_.exchange(nullptr, std::memory_order_acq_rel);
    const int64_t took =
        Clock::Process().Now().time_since_epoch().count() - begin_.load(std::memory_order_relaxed);
    if (took > longest_.load(std::memory_order_relaxed)) {
      longest_.store(took, std::memory_order_relaxed);
      longest_what_.store(what, std::memory_order_relaxed);
    }
    if (took > Duration(kLongStep).count()) Tell(what, took);
  }

  /// The loop waits although a step is open, until Resume.
  const char* Suspend() { return what_.exchange(nullptr, std::memory_order_acq_rel); }
  void Resume(const char* what) {
    if (what == nullptr) return;
    begin_.store(Clock::Process().Now().time_since_epoch().count(), std::memory_order_relaxed);
    steps_.store(steps_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    what_.store(what, std::memory_order_release);
  }

  LoopReading Read() const {
    LoopReading reading;
    reading.name = name_;
    reading.kind = kind_;
    const char* what = nullptr;
    int64_t begin = 0;
    do {
      reading.steps = steps_.load(std::memory_order_acquire);
      begin = begin_.load(std::memory_order_relaxed);
      what = what_.load(std::memory_order_acquire);
    } while (steps_.load(std::memory_order_acquire) != reading.steps);
    if (what != nullptr) {
      reading.busy = true;
      reading.step = Readable(what);
      reading.age = Duration(std::max<int64_t>(0, Clock::Process().Now().time_since_epoch().count() - begin));
    }
    reading.longest = Duration(longest_.load(std::memory_order_relaxed));
    if (const char* const longest = longest_what_.load(std::memory_order_relaxed)) {
      reading.longest_step = Readable(longest);
    }
    return reading;
  }

  const char* outer_step = nullptr;  // the suspended step of the loop around this one

 private:
  static constexpr size_t kMostTold = 64;

  // Lambdas and other types by the name in the source.
  static std::string Readable(const char* what) {
    int status = -1;
    const std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(what, nullptr, nullptr, &status),
                                                      &std::free);
    return status == 0 && name ? std::string(name.get()) : std::string(what);
  }

  void Tell(const char* what, int64_t took) {
    if (told_.size() >= kMostTold || std::find(told_.begin(), told_.end(), what) != told_.end()) return;
    told_.push_back(what);
    ZEM_LIB_LOG(Library::kNet, kLogWarning, "loop %s: one step took %lld ms: %s", name_.c_str(),
                static_cast<long long>(took / 1000000), Readable(what).c_str());
  }

  const std::string name_;
  const LoopKind kind_;
  std::atomic<const char*> what_{nullptr};
  std::atomic<uint64_t> steps_{0};
  std::atomic<int64_t> begin_{0};  // nanoseconds of the process's clock
  std::atomic<int64_t> longest_{0};
  std::atomic<const char*> longest_what_{nullptr};
  std::vector<const char*> told_;  // of the thread only
};

namespace {

struct AllLoops {
  std::mutex mutex;  // guards all below
  std::vector<std::shared_ptr<void>> loops;
  // By name; a count that fell would look like a new start.
  std::map<std::string, uint64_t> steps_before;
};

// Never destroyed: loops of static objects leave it at the very end.
AllLoops& All() {
  static auto* const all = new AllLoops;
  return *all;
}

// A LoopThread::Loop; the type is private to the class.
thread_local void* loop_of_thread = nullptr;

}  // namespace

LoopThread::LoopThread(std::string_view name, LoopKind kind)
    : loop_(std::make_shared<Loop>(name, kind)), outer_(static_cast<Loop*>(loop_of_thread)) {
  if (outer_ != nullptr) loop_->outer_step = outer_->Suspend();
  loop_of_thread = loop_.get();
  const std::lock_guard lock(All().mutex);
  All().loops.push_back(loop_);
}

LoopThread::~LoopThread() {
  {
    const std::lock_guard lock(All().mutex);
    std::erase_if(All().loops, [this](const auto& loop) { return loop.get() == loop_.get(); });
    const LoopReading last = loop_->Read();
    All().steps_before[last.name] += last.steps;
  }
  loop_of_thread = outer_;
  if (outer_ != nullptr) outer_->Resume(loop_->outer_step);
}

std::map<std::string, uint64_t> LoopThread::StepsBefore() {
  const std::lock_guard lock(All().mutex);
  return All().steps_before;
}

std::vector<LoopReading> LoopThread::ReadAll() {
  std::vector<std::shared_ptr<void>> loops;
  {
    const std::lock_guard lock(All().mutex);
    loops = All().loops;
  }
  std::vector<LoopReading> readings;
  readings.reserve(loops.size());
  for (const auto& loop : loops) readings.push_back(static_cast<const Loop*>(loop.get())->Read());
  return readings;
}

LoopStep::LoopStep(const char* what)
    : loop_([what]() -> LoopThread::Loop* {
        auto* const loop = static_cast<LoopThread::Loop*>(loop_of_thread);
        return loop != nullptr && loop->Begin(what) ? loop : nullptr;
      }()) {}

LoopStep::~LoopStep() {
  if (loop_ != nullptr) loop_->End();
}

}  // namespace zem
