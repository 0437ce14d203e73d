#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

namespace IdsEvtEng {

struct IdsEvent;

/// The notices of captures that wait to be sent.
///
/// Threads: all operations from any thread; none of them waits.
class PcapQueue {
 public:
  explicit PcapQueue(uint32_t limit);
  ~PcapQueue();
  PcapQueue(const PcapQueue&) = delete;
  PcapQueue& operator=(const PcapQueue&) = delete;

  /// Takes the notice, or leaves it with the caller when the queue is full.
  bool Push(std::unique_ptr<IdsEvent>& notice);
  /// The oldest notice; null when there is none.
  std::unique_ptr<IdsEvent> Pop();
  /// The oldest notice of a full queue; null while there is room.
  std::unique_ptr<IdsEvent> PopOfFull();

  uint32_t count() const { return count_; }
  uint32_t limit() const { return limit_; }

 private:
  std::unique_ptr<IdsEvent> PopLocked();

  const uint32_t limit_;
  std::atomic<uint32_t> count_{0};
  std::mutex mutex_;  // guards notices_
  std::deque<std::unique_ptr<IdsEvent>> notices_;
};

}  // namespace IdsEvtEng
