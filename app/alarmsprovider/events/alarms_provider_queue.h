#pragma once

#include <cstddef>
#include <deque>

#include "app/alarmsprovider/events/reported_event.h"

namespace zem::Tarvik {

/// Events in the order in which they were reported.
///
/// Threads: none of its own; the owner guards it.
class AlarmsProviderQueue {
 public:
  static constexpr size_t kCapacity = 0x10000;
  /// Any local process may report events with long contexts.
  static constexpr size_t kMaxTextBytes = 256 << 20;

  /// Returns false when the queue is full.
  [[nodiscard]] bool Push(SharedEvent event);
  /// Removes the oldest event; null when there is none.
  SharedEvent Pop();
  /// Returns the oldest event; null when there is none.
  SharedEvent Peek() const;
  void Reset();

  size_t size() const { return events_.size(); }

 private:
  std::deque<SharedEvent> events_;
  size_t text_bytes_ = 0;  // of the events
};

}  // namespace zem::Tarvik
