#pragma once

#include <pthread.h>

#include "app/ctxteng/base/exceptions.h"

namespace Locks {

/// A mutex that the system refused to make or to lock.
class LockException final : public CtxtBaseException {
 public:
  explicit LockException(int error);
  int error() const { return error_; }

 private:
  const int error_;
};

/// One non-recursive system mutex.  Guards memory only: nothing that waits is called under it.
class Mutex {
 public:
  /// Throws LockException.
  Mutex();
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  /// Throws LockException.
  void Lock();
  /// Returns the system's error number, 0 when the mutex is free.
  int Unlock() noexcept;

 private:
  pthread_mutex_t mutex_;
};

/// Holds a mutex for its scope.
class ScopedLock {
 public:
  explicit ScopedLock(Mutex& mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~ScopedLock();
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace Locks
