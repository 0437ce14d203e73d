#pragma once

#include <pthread.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace zem {

/// A thread of this process, known to the clock.  Joins in its destructor unless it was joined, detached or
/// never started.
///
/// Threads: one owner; `Cancel` and `id` also from others while the owner keeps the object.
class NativeThread {
 public:
  struct Options {
    /// Empty keeps the creator's name.
    std::string name;
    /// Bytes; 0 is the system's default.
    size_t stack_size = 0;
    bool detached = false;
    /// False for a thread whose work is counted item by item instead (a provider's pool).
    bool counts_as_work = true;
  };

  NativeThread() = default;
  /// Throws std::system_error when the system refuses the thread.
  explicit NativeThread(std::function<void()> body) : NativeThread(Options(), std::move(body)) {}
  NativeThread(Options options, std::function<void()> body);
  ~NativeThread();
  NativeThread(NativeThread&&) noexcept = default;
  NativeThread& operator=(NativeThread&& other) noexcept;

  bool joinable() const { return state_ != nullptr && !detached_; }

  /// Waits for the end of the body.  Throws std::system_error.
  void Join();

  /// Joins a thread that ends by `deadline`; false when it does not.  Throws std::system_error.
  bool JoinUntil(std::chrono::steady_clock::time_point deadline);

  /// Leaves the thread to itself.  What its body uses must live on.
  void Detach();

  /// Asks for a deferred cancellation: the body unwinds at its next wait.  Returns the system call's result.
  int Cancel();

  pthread_t id() const { return id_; }

 private:
  struct State;
  static void* Enter(void* argument);

  std::shared_ptr<State> state_;
  pthread_t id_{};
  bool detached_ = false;
};

/// Waits on the process's clock.  A wait that somebody may have to end early uses StopSignal instead.
void SleepFor(std::chrono::nanoseconds duration);

}  // namespace zem
