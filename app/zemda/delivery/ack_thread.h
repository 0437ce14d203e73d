#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

#include "app/zemda/base/thread.h"

namespace ZemDa {

/// The timer of the message that waits for its acknowledgement.  Its thread starts at the first `Arm`.
///
/// Threads: all operations from any thread.
class AckThread final : public Thread {
 public:
  /// `timed_out` runs on the timer's thread.
  explicit AckThread(std::function<void()> timed_out);
  ~AckThread() override;

  /// Begins the time anew; gives the number of this arming.
  uint64_t Arm();
  /// Stops the time, whichever arming it runs for.
  void Disarm();
  /// Stops the time of that arming only: another message may have been sent meanwhile.
  void Disarm(uint64_t arming);
  /// Ends the thread and waits for it.
  void End();

  void operator()() override;

 private:
  uint64_t AwaitArmed();
  void WaitOnce();

  const std::function<void()> timed_out_;
  std::mutex mutex_;  // guards what follows
  bool armed_ = false;
  bool stop_ = false;
  uint64_t armings_ = 0;
};

}  // namespace ZemDa
