#pragma once

#include <cstdint>
#include <mutex>
#include <utility>

namespace Ctxt {

/// The site that a client's messages name, as the two halves of a uuid; both 0 when it is not known.
///
/// Threads: all operations from any thread.
class SiteId {
 public:
  using Halves = std::pair<uint64_t, uint64_t>;

  Halves Get() const {
    std::lock_guard lock(mutex_);
    return current_;
  }
  void Set(Halves site) {
    std::lock_guard lock(mutex_);
    current_ = received_ = site;
  }
  /// The configuration names no site any more.
  void Forget() { Set({}); }
  /// Names none until `Resume`, or until the configuration names another one.
  void Suspend() {
    std::lock_guard lock(mutex_);
    current_ = {};
  }
  void Resume() {
    std::lock_guard lock(mutex_);
    current_ = received_;
  }

 private:
  mutable std::mutex mutex_;  // guards both
  Halves current_;
  Halves received_;
};

}  // namespace Ctxt
