#pragma once

#include <cstdint>
#include <string_view>

#include "platform/core/clock.h"

namespace zem::timeline {

class Segment;

/// A step of the thread's operation, from construction to destruction, in the order of a stack.  Outside of
/// an operation it is one load and one branch.  `name` has to live forever.
class Step {
 public:
  explicit Step(std::string_view name, std::string_view detail = {});
  /// For a caller that has read the clock for purposes of its own.
  Step(std::string_view name, TimePoint start);
  ~Step();
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;

  /// Whether it is recorded; for texts that only a step needs.
  bool recorded() const { return state_ != State::kNone; }
  void Detail(std::string_view key, std::string_view value);
  /// How it ended; at most once.
  void Result(std::string_view text, bool failed);
  /// It ended at `now`, rather than with this object.
  void End(TimePoint now);
  /// A library's code; 0 is success.
  void ResultCode(uint32_t code);

 private:
  enum class State : uint8_t {
    kNone,
    kRecorded,
    kJoined,  // the record is of an earlier step, too
  };

  Segment* const counted_;  // whose depth it is part of
  const TimePoint start_;
  uint32_t depth_ = 0;
  State state_ = State::kNone;
  bool ended_ = false;
};

/// Whether steps of this thread are recorded; for texts that only a step needs.
bool Recording();

/// A moment of the thread's operation, such as "received".
void Note(std::string_view name, std::string_view detail, bool failed = false);

/// A wait of the thread's operation that ends now.
void Waited(std::string_view name, TimePoint since, std::string_view detail = {});

}  // namespace zem::timeline
