#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/replay/borders.h"

namespace zem::sim {

/// A day of a node: what was done to it, when, and what its daemon did at its borders.
struct Recording {
  struct Event {
    int64_t at_ms = 0;  ///< of the node's time, from the first one on
    std::string command;
    std::string answer;
    bool awaited = false;  ///< it was repeated until the answer was this one
    /// What the daemon had done by then, where it is more than before the last event: the command may have
    /// been given in the knowledge of it.
    Borders::Counts seen;
  };

  std::string daemon_options;       ///< the daemon's XML options, as text
  std::string realization_options;  ///< the realization's JSON options
  int clock_factor = 1;
  std::vector<Event> events;
  Borders borders;

  /// A line of JSON for each part, and one at the end that counts them.
  void Write(const std::string& path) const;
  /// Throws std::runtime_error for a file of another kind or version, one that is cut off, and a line that is
  /// neither a command nor a border.
  static Recording Read(const std::string& path);
};

/// Whether a command was taken; the rest of an answer holds times and numbers of its life.
bool WasTaken(const std::string& answer);

/// What shows what the daemon has done by then, without times of its life.
bool ShowsState(const std::string& command);

/// What only looks, and is compared at the borders anyway.
bool OnlyLooks(const std::string& command);

}  // namespace zem::sim
