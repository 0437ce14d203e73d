#pragma once

#include <atomic>
#include <cstdint>

#include "platform/core/clock.h"

namespace IdsEvtEng {

/// Keeps a text that one bad sender can provoke thousands of times a second from filling the log: the first
/// lines of each 10 seconds are written, and the number of the others.
///
/// Threads: any; two that meet at the turn of a period may write one line more.
class LineBudget {
 public:
  explicit constexpr LineBudget(uint32_t lines = 1) : lines_(lines) {}

  /// Whether the line may be written.
  bool Allows(zem::TimePoint now = zem::Clock::Process().Now());

 private:
  const uint32_t lines_;
  std::atomic<int64_t> end_ns_{0};
  std::atomic<uint32_t> left_{0};
  std::atomic<uint64_t> left_out_{0};
};

}  // namespace IdsEvtEng
