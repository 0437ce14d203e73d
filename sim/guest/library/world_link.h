#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "sim/guest/wire/messages.h"

namespace zem::sim::guest {

/// The library's way to the multiplexer.
class WorldLink {
 public:
  virtual ~WorldLink() = default;

  /// Events go to `sink` from now on, in order, also over losses of the multiplexer.
  virtual void Start(uint64_t instance, uint32_t most_undelivered,
                     std::function<void(const Event&)> sink) = 0;
  /// Returns when no event is being delivered any more.
  virtual void Stop() = 0;
  /// Nothing when the multiplexer cannot be reached, or has not answered in time.  From any thread.
  virtual std::optional<Answer> Ask(const Question& question) = 0;
};

}  // namespace zem::sim::guest
