#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>

#include "framework/tasks/runnable.h"
#include "platform/core/condition.h"
#include "platform/core/thread.h"

namespace zem {

/// A thread with a monitor: runs its target, or itself.
///
/// Threads: Lock, Unlock, Wait and Notify from any thread; Start, Stop and Join by the owner.
/// Errors: throws Exception, with the name and result of the system call that failed.
class Thread : public Runnable {
 public:
  static constexpr pthread_t kNotStarted = static_cast<pthread_t>(-1);

  /// `target` may be null.  A stack of 16384 bytes or less is the system's default.
  Thread(bool joinable, std::unique_ptr<Runnable> target, size_t stack_size);
  ~Thread() override;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  /// Takes the monitor; not recursive.
  void Lock();

  /// Releases the monitor.  No effect when the calling thread does not hold it.
  void Unlock() override;

  void Run() override;

  /// Returns kNotStarted before the start; keeps the id after the end.
  virtual pthread_t ThreadId() const;

  /// Calling it twice has no effect.
  virtual void Join();

  /// Waits for Notify, with the monitor held.  Returns 1, or 0 after `seconds`; 0 seconds means no time-out.
  /// A Notify that came before the wait does not count.
  virtual int Wait(int seconds);

  /// With the monitor held.
  virtual void Notify();

  virtual void Start();

  /// Cancels the thread at its next wait; derived classes may end more gently.
  virtual void Stop();

 protected:
  /// For destructors of derived classes, whose members the thread uses.
  void StopAndJoin();

 private:
  // The monitor as a lock that knows its holder, so that a thread that unwinds can tell whether it holds it.
  class Monitor {
   public:
    void lock() {
      mutex_.lock();
      holder_ = pthread_self();
    }
    void unlock() {
      holder_ = kNotStarted;
      mutex_.unlock();
    }
    bool HeldByCaller() const { return holder_ == pthread_self(); }

   private:
    std::mutex mutex_;
    std::atomic<pthread_t> holder_{kNotStarted};
  };

  void Body();

  const std::unique_ptr<Runnable> target_;
  const bool joinable_;
  const size_t stack_size_;
  std::optional<NativeThread> thread_;
  std::atomic<pthread_t> id_{kNotStarted};
  Monitor monitor_;
  Condition condition_;
  bool signalled_ = false;  // guarded by the monitor
};

}  // namespace zem

// The realization knows it by this name.
namespace zem::zema {
using zem::Thread;
}
