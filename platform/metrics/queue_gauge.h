#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/core/clock.h"

namespace zem {

/// The figures of one first-in-first-out queue: how many elements wait, the most that ever did, the
/// longest wait, and how many were refused or dropped.  It is listed with those of all other queues of the
/// process for as long as it lives.
///
/// Threads: all operations from any thread.  The queue calls it under its own lock, so that the order of the
/// calls is the order of the elements.
class QueueGauge {
 public:
  /// A queue without a limit: what its elements come from bounds it.
  static constexpr size_t kNoLimit = 0;

  /// `limit` is for display; the queue itself keeps it.
  explicit QueueGauge(std::string name, size_t limit = kNoLimit);
  ~QueueGauge();
  QueueGauge(const QueueGauge&) = delete;
  QueueGauge& operator=(const QueueGauge&) = delete;

  /// An element begins to wait.
  void Entered();
  /// The oldest element is taken for work.
  void Left();
  /// One that had left comes back, ahead of all others; it waits anew.
  void Returned();
  /// An element was refused; it never waited.
  void Refused();
  /// The `count` newest elements are given up.
  void Dropped(size_t count);

  size_t depth() const;

  struct Reading {
    std::string name;
    size_t limit = kNoLimit;
    size_t depth = 0;
    size_t most = 0;
    /// Of those that have left, and of the oldest one that still waits.
    Duration longest_wait{};
    uint64_t dropped = 0;
    /// How long the oldest element has waited; zero for an empty queue.
    Duration oldest{};
  };
  Reading Read() const;

  /// Of all queues of the process, in the order in which they were made.
  static std::vector<Reading> ReadAll();
  /// By name, what the queues that have gone had dropped.  Queues have few names.
  static std::map<std::string, uint64_t> DroppedBefore();

 private:
  const std::string name_;
  const size_t limit_;
  mutable std::mutex mutex_;  // guards what follows; taken with the list's lock held
  std::deque<TimePoint> since_;
  size_t most_ = 0;
  Duration longest_wait_{};
  uint64_t dropped_ = 0;
};

}  // namespace zem
