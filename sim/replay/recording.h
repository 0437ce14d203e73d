#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/core/unique_fd.h"
#include "sim/replay/borders.h"

namespace zem::sim {

/// A day of a node: what was done to it, when, and what its daemon did at its borders.
struct Recording {
  struct Event {
    int64_t at_ms = 0;  ///< of the node's time, from the first one on
    std::string command;
    std::string answer;
    bool awaited = false;    ///< it was repeated until the answer was this one
    bool daemon_ran = true;  ///< when the command was given
    /// What the daemon had done by then, where it is more than before the last event: the command may have
    /// been given in the knowledge of it.
    Borders::Counts seen;
  };

  std::string daemon_options;       ///< the daemon's XML options, as text
  std::string realization_options;  ///< the realization's JSON options
  std::string issue;                ///< the identity file's text
  std::string seed;                 ///< of the names that the peers make up
  bool daemon_started = true;       ///< by the node; otherwise by a command
  int clock_factor = 1;
  std::vector<Event> events;
  Borders borders;

  /// A file that a recording will be written to: it is there under its name when it is whole, or not at all.
  class Draft {
   public:
    /// Throws std::runtime_error when the file cannot be made, before a day is spent on it.
    explicit Draft(std::string path);
    ~Draft();
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;

    /// A line of JSON for each part, and one at the end that counts them.
    void Finish(const Recording& recording);
    /// Its name until then.
    const std::string& path() const { return draft_; }

   private:
    const std::string path_;
    const std::string draft_;
    UniqueFd file_;
  };

  /// Throws std::runtime_error for a file of another kind or version, one that is cut off, and a line that is
  /// neither a command nor a border.
  static Recording Read(const std::string& path);
};

}  // namespace zem::sim
