#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/core/condition.h"
#include "platform/core/thread.h"

namespace orlane::zem::ouvi {
class MuxConfigMsg;
}

namespace Ctxt {

class MuxPort;

enum MuxState : uint32_t {
  UNINITIALIZED = 0,  // nobody knows yet
  MUX_CONNECTED = 1,
  MUX_DISCONNECTED = 2,  // the next connect sends everything again
};

/// The one queue of all that goes to the multiplexer, with a thread that carries it out: a push waits for
/// another process, and those who find out what is to be pushed are callbacks that must not wait.
///
/// Threads: all operations from any thread.
/// Limits: 4,096 tasks; one more throws all of them away and asks for everything to be sent again.
class MuxPusher {
 public:
  using Task = std::function<void()>;
  static constexpr size_t kMostTasks = 4096;

  /// `resend` posts all configurations anew; it runs on the pusher's thread.
  MuxPusher(std::shared_ptr<MuxPort> port, Task resend);
  ~MuxPusher();
  MuxPusher(const MuxPusher&) = delete;
  MuxPusher& operator=(const MuxPusher&) = delete;

  /// Queues `task`, which may throw: that is logged.
  void Post(Task task);
  /// Waits for the task that runs; those that wait are dropped.
  void Stop();

  /// Pushes at once, in the caller's thread, and returns the library's status.  A failure leaves the state
  /// MUX_DISCONNECTED when nobody knew it.  Throws CtxtProtobufError.
  uint32_t Push(const orlane::zem::ouvi::MuxConfigMsg& config);

  MuxState state() const { return state_; }
  /// Also logs the state.
  void SetState(MuxState state);

 private:
  void Run();

  const std::shared_ptr<MuxPort> port_;
  const Task resend_;
  std::atomic<MuxState> state_{UNINITIALIZED};
  std::atomic<uint64_t> connects_{0};

  std::mutex mutex_;  // guards what follows
  zem::Condition changed_;
  std::deque<Task> tasks_;
  bool stopping_ = false;
  zem::NativeThread thread_;
};

}  // namespace Ctxt
