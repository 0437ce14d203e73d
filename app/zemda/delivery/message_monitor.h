#pragma once

#include <atomic>
#include <functional>

#include "app/zemda/base/thread.h"

namespace ZemDa {

/// Notices that nothing was sent for an hour.  Its thread starts at the first `Restart`.
///
/// Threads: all operations from any thread.
class MessageMonitor final : public Thread {
 public:
  static constexpr int kSeconds = 3600;

  /// `timed_out` runs on the monitor's thread.
  explicit MessageMonitor(std::function<void()> timed_out);
  ~MessageMonitor() override;

  /// Begins the hour anew.
  void Restart();
  /// Ends the thread and waits for it.
  void End();

  void operator()() override;

 private:
  const std::function<void()> timed_out_;
  std::atomic<bool> stop_{false};
};

}  // namespace ZemDa
