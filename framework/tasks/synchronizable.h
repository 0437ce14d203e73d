#pragma once

#include <pthread.h>

#include <mutex>

#include "platform/core/condition.h"

namespace zem {

/// A lock that knows who holds it and from where, and logs when a caller had to wait for 11 seconds or more.
/// It may be held across commands to other processes; not recursive.
///
/// Threads: all operations from any thread.
class Synchronizable {
 public:
  /// `file` must live forever.
  void Lock(const char* file, int line);
  void Unlock();

  struct Holder {
    const char* file = nullptr;
    int line = -1;
    pthread_t thread = static_cast<pthread_t>(-1);
  };
  /// For diagnosis: null and all-ones when free.
  Holder holder() const;

 private:
  mutable std::mutex mutex_;  // guards all below
  Condition freed_;
  bool held_ = false;
  Holder holder_;
};

/// Holds a Synchronizable for a scope: `Synchronizer lock(table, __FILE__, __LINE__);`
class Synchronizer {
 public:
  Synchronizer(Synchronizable& lock, const char* file, int line) : lock_(lock) { lock_.Lock(file, line); }
  ~Synchronizer() { lock_.Unlock(); }
  Synchronizer(const Synchronizer&) = delete;
  Synchronizer& operator=(const Synchronizer&) = delete;

 private:
  Synchronizable& lock_;
};

}  // namespace zem
