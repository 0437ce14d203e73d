#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/core/unique_fd.h"

namespace zem::Tarvik {

/// Answers on their way to the command server's thread, which a descriptor wakes.
class CliReplyQueue {
 public:
  struct Answer {
    uint64_t request;
    bool ok;
    std::string text;
  };

  CliReplyQueue() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  /// Dropped when the server has gone.
  void Add(Answer answer) {
    {
      std::lock_guard lock(mutex_);
      if (closed_) return;
      answers_.push_back(std::move(answer));
    }
    Wake();
  }

  std::vector<Answer> Take() {
    std::lock_guard lock(mutex_);
    return std::exchange(answers_, {});
  }

  void Open() {
    std::lock_guard lock(mutex_);
    closed_ = false;
  }

  void Close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
    answers_.clear();
  }

  void Wake() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t full_is_awake = ::write(wake_.get(), &one, sizeof(one));
  }

  void ClearWake() {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t none_is_fine = ::read(wake_.get(), &count, sizeof(count));
  }

  int wake_fd() const { return wake_.get(); }

 private:
  const UniqueFd wake_;
  std::mutex mutex_;  // guards all below
  bool closed_ = true;
  std::vector<Answer> answers_;
};

}  // namespace zem::Tarvik
