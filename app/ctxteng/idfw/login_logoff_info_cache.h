#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "app/ctxteng/idfw/login_logoff_info.h"
#include "platform/core/lock_free_queue.h"

namespace Ctxt {

struct LoginLogoffSignal;

/// The logons that wait for the next batch, oldest first.
///
/// Threads: all operations from any thread; `ConsumeAll` by one at a time.  None of them blocks, but for the
/// signal's mutex in the moment in which the threshold is passed.
/// Limits: `cache_limit` entries, at most 100000; the ones that come then push out the oldest, which is
/// logged and counted.
class LoginLogoffInfoCache {
 public:
  static constexpr uint32_t kMostEntries = 100000;

  /// `cache_threshold` is in percent of the limit; at 100 and more it is never passed.
  LoginLogoffInfoCache(uint32_t cache_limit, uint32_t cache_threshold,
                       std::shared_ptr<LoginLogoffSignal> signal);
  ~LoginLogoffInfoCache();
  LoginLogoffInfoCache(const LoginLogoffInfoCache&) = delete;
  LoginLogoffInfoCache& operator=(const LoginLogoffInfoCache&) = delete;

  bool IsFull() const { return size_ >= cache_limit_; }
  bool IsThresholdReached() const { return Passes(size_); }
  uint32_t Size() const { return size_; }
  uint32_t cache_limit() const { return cache_limit_; }
  uint32_t cache_threshold() const { return cache_threshold_; }
  /// Entries that did not find a place, ever.
  uint64_t dropped() const { return dropped_; }

  void Add(std::unique_ptr<LoginLogoffInfo> info);
  /// Hands out what is in the cache: at most as much as fits into it, so that it ends also in a storm.  Ends
  /// as well when the handler, which has taken what it was given, wants no more: it then returns false.
  void ConsumeAll(const std::function<bool(const LoginLogoffInfo& info)>& handler);

 private:
  bool Passes(uint32_t size) const { return size > cache_threshold_ / 100.0 * cache_limit_; }
  // Takes a place; false when there is none.  `size` is the number of places taken then.
  bool Reserve(uint32_t* size);
  std::unique_ptr<LoginLogoffInfo> Pop();

  const uint32_t cache_limit_;
  const uint32_t cache_threshold_;
  const std::shared_ptr<LoginLogoffSignal> signal_;
  zem::LockFreeQueue<LoginLogoffInfo*> queue_;
  // Places taken.  Rises before an entry goes into the queue and falls after it has left, so that the queue
  // never holds more, and its pool of nodes is always enough.
  // On a cache line of its own: every thread writes it.
  alignas(64) std::atomic<uint32_t> size_{0};
  alignas(64) std::atomic<uint64_t> dropped_{0};
};

}  // namespace Ctxt
