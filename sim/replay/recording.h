#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "sim/replay/borders.h"

namespace zem::sim {

class ControlClient;

/// A day of a node: what was done to it, when, and what its daemon did at its borders.
struct Recording {
  struct Event {
    int64_t at_ms = 0;  ///< of the node's time, from the first one on
    std::string command;
    std::string answer;
    bool awaited = false;  ///< it was repeated until the answer was this one
  };

  std::string daemon_options;       ///< the daemon's XML options, as text
  std::string realization_options;  ///< the realization's JSON options
  int clock_factor = 1;
  std::vector<Event> events;
  Borders borders;

  /// A line of JSON for each part; a file of another kind is refused with std::runtime_error.
  void Write(const std::string& path) const;
  static Recording Read(const std::string& path);
};

/// Does to another node what the recording's node went through, at the same times, on a clock that runs
/// `clock_factor` times as fast as the machine's; prints the differences.  Returns how many there are.
size_t Replay(const Recording& recording, ControlClient& node, int clock_factor, std::ostream& out);

}  // namespace zem::sim
