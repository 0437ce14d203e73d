#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/tasks/runnable.h"

namespace zem {

/// What happened, in order, from any thread.
class Journal {
 public:
  void Add(std::string entry) {
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
  }
  std::vector<std::string> Take() {
    std::lock_guard lock(mutex_);
    return std::exchange(entries_, {});
  }

 private:
  std::mutex mutex_;  // guards entries_
  std::vector<std::string> entries_;
};

/// Writes its name when it runs, and "~name" when it is destroyed without having run.
class RecordingTask : public Runnable {
 public:
  RecordingTask(Journal& journal, std::string name, std::function<void()> work = nullptr,
                bool batchable = true)
      : journal_(journal), name_(std::move(name)), work_(std::move(work)), batchable_(batchable) {}
  ~RecordingTask() override {
    if (!done_) journal_.Add("~" + name_);
  }
  void Run() override {
    done_ = true;
    journal_.Add(name_);
    if (work_) work_();
  }
  bool IsBatchable() const override { return batchable_; }

  /// For a batcher that has absorbed it.
  std::string Absorb() {
    done_ = true;
    return name_;
  }

 private:
  Journal& journal_;
  const std::string name_;
  const std::function<void()> work_;
  const bool batchable_;
  bool done_ = false;
};

inline std::unique_ptr<Runnable> MakeTask(Journal& journal, std::string name,
                                          std::function<void()> work = nullptr, bool batchable = true) {
  return std::make_unique<RecordingTask>(journal, std::move(name), std::move(work), batchable);
}

}  // namespace zem
