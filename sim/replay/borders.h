#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "sim/replay/border_table.h"
#include "sim/replay/likeness.h"

namespace zem::sim {

/// Something that two lives of a node do not have in common.
struct Difference {
  std::string group;
  char mark = '-';   ///< '-' only the first has it, '+' only the second, '~' both, in another order
  std::string line;  ///< empty for another order
};

/// What the daemon did at its borders, as its peers have seen it: see the table in docs/simulated-node.md.
///
/// Lines are in groups within which their order means something: the calls on one port, the messages of one
/// kind.
class Borders {
 public:
  /// Adds what the peers of a node know by now; once, at the end.
  void Take(ControlClient& node);
  /// The same, when nothing has been added for a while: what the last command set off may still be on its
  /// way.  Waits for so long at most.
  void TakeAtRest(ControlClient& node, Duration most);
  /// Adds what the peers will not know any more after a command that `ForgetsBorders`.
  void TakeForgotten(ControlClient& node);

  /// Where `other` differs, by group.  `likeness` knows what the day gave.
  std::vector<Difference> Compare(const Borders& other, Likeness likeness = {}) const;

  using Counts = std::map<std::string, size_t>;
  /// How many actions there are by now, by group, with those that the peers have forgotten.  They only grow,
  /// so they tell how far the daemon has come.
  Counts Actions(ControlClient& node) const;

  using Groups = std::map<std::string, std::vector<std::string>>;
  const Groups& groups() const { return groups_; }
  void Add(const std::string& group, std::string line) { groups_[group].push_back(std::move(line)); }
  /// Replaces a name in all lines.
  void Rename(const std::string& name, const std::string& other);

 private:
  void Read(BorderKind kind, const std::string& group, std::string line);

  Groups groups_;
};

bool DaemonRuns(ControlClient& node);

}  // namespace zem::sim
