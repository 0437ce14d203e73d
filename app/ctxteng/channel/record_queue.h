#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "mpaclient/bus/bus_record.h"
#include "platform/core/condition.h"

namespace Ctxt {

/// The records that wait for the channel's thread.
///
/// Threads: all operations from any thread.
/// Limits: 50000 records; the ones that come then are dropped.
class RecordQueue {
 public:
  using Record = std::shared_ptr<const zem::BusRecord>;
  static constexpr size_t kCapacity = 50000;

  /// False, after a log line, when the queue is full.
  [[nodiscard]] bool Push(Record record);
  /// The same past the bound: for what the process itself has to be told.
  void PushLocal(Record record);
  /// Waits; null when `ended` is true and nothing waits.
  Record Pop(const std::function<bool()>& ended);
  /// Lets a waiting `Pop` look at `ended` again.
  void Wake();
  size_t size() const;

 private:
  void Added(size_t size);

  mutable std::mutex mutex_;  // guards queue_
  zem::Condition changed_;
  std::deque<Record> queue_;
};

}  // namespace Ctxt
