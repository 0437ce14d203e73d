#pragma once

#include <iosfwd>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/clock.h"
#include "sim/replay/expected_differences.h"
#include "sim/replay/recording.h"

namespace zem::sim {

class ControlClient;

/// Does to another node what the recording's node went through.
///
/// Each command waits for its time, and for what the recorded daemon had done by then: a daemon that is
/// slower than the clock gets no command before it is there for it.  What a daemon does not do is waited for
/// once.
///
/// Threads: one.
class Replayer {
 public:
  /// The node's clock runs `clock_factor` times as fast as the machine's.
  Replayer(const Recording& recording, ControlClient& node, int clock_factor);

  std::vector<Difference> Run();

 private:
  void Await(const Recording::Event& event);
  std::string Execute(const Recording::Event& event);
  /// Line numbers of the recorded log become those of this one, and names those of this node.
  std::string Translated(const std::string& command) const;
  void Learn(const Recording::Event& event, const std::string& answer);
  /// Before the `next` event.
  bool HasEnded(size_t next);
  TimePoint Patience(Duration least) const;
  std::vector<Difference> AtBorders(const Borders& recorded);

  const Recording& recording_;
  ControlClient& node_;
  const int clock_factor_;
  TimePoint begun_;
  Borders forgotten_;
  std::map<std::string, size_t> owed_;  // what this daemon has not done, by group
  std::map<std::string, std::string> log_places_;
  std::map<std::string, std::string> names_;  // of the recorded node, and of this one
  bool ended_ = false;                        // the daemon, which should run
  Likeness likeness_;                         // what the day gives
};

/// Prints the differences that are not `expected`, some lines of each group, and what is expected and is not
/// there; returns how many groups there are of the former and lines of the latter.
size_t Judge(const std::vector<Difference>& differences, ExpectedDifferences expected, std::ostream& out);

}  // namespace zem::sim
