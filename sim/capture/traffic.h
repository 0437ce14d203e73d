#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"
#include "sim/capture/frame.h"

namespace zem::sim::capture {

/// Traffic at the host's capture points: single bursts, and flows that go on until they are ended.  The
/// numbers of the packets run on over all of it.
///
/// Threads: all operations from any thread.
/// Errors: std::runtime_error with a text.
class Traffic {
 public:
  ~Traffic() { StopFlows(); }

  /// Sends so many packets at a point (VM.DEVICE or KIND:NAME), as its guest does, or to its guest.  Returns
  /// the number of the first.
  uint64_t Inject(const std::string& point, const Frame& frame, uint64_t count, bool to_guest);
  /// Sends from the point's guest, so many packets in a second.
  void StartFlow(const std::string& point, const Frame& frame, unsigned per_second);
  void StopFlows();
  /// The number of the last packet that was sent.
  uint64_t last() const { return next_ - 1; }

 private:
  struct Flow {
    StopSignal stop;
    NativeThread thread;
  };

  std::atomic<uint64_t> next_{1};
  std::mutex mutex_;  // guards flows_
  std::list<std::unique_ptr<Flow>> flows_;
};

}  // namespace zem::sim::capture
