#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "app/zemda/base/interruption.h"

namespace zem {
class NativeThread;
}

namespace ZemDa {

/// A thread of the agent.  A class that derives from it calls `Stop` and `Join` in its destructor, since the
/// body uses its members.
///
/// Threads: all operations from any thread.
class Thread {
 public:
  explicit Thread(std::string name);

  /// The thread's body.  An interruption may leave it.
  virtual void operator()() = 0;
  virtual ~Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  /// Nothing when there is a thread already.  When the system has none, that is logged, and another call
  /// tries again.
  void Start();
  /// Requests an interruption and returns.
  void Stop();
  /// Waits for the end.  Throws boost::thread_resource_error on the thread itself.
  void Join();
  /// Lets go of the thread, which may still run.
  void CleanUp();
  /// Whether it was started and not cleaned up; also true after the body's end.
  bool started() const;

 protected:
  Interruption& interruption() { return interruption_; }

 private:
  const std::string name_;
  Interruption interruption_;
  mutable std::mutex mutex_;  // guards thread_
  std::shared_ptr<zem::NativeThread> thread_;
};

}  // namespace ZemDa
