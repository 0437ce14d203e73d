#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace zem::sim {

class ControlClient;

/// Something that two lives of a node do not have in common.
struct Difference {
  std::string group;
  char mark = '-';   ///< '-' only the first has it, '+' only the second, '~' both, in another order
  std::string line;  ///< empty for another order
};

/// What the daemon did at its borders, as its peers have seen it: calls of the switch libraries with their
/// results, commands of the management script with their replies, messages to the manager, objects in the
/// store, files.
///
/// Times, process and message ids are left out, because they differ in every life.  Lines are in groups
/// within which their order means something: the calls on one port, the messages of one vertical.  Questions
/// (calls that change nothing) are told once for each answer, since how often they are asked depends on the
/// pace.
class Borders {
 public:
  /// Adds what the peers of a node know by now; once, at the end.
  void Take(ControlClient& node);
  /// Adds what the peers will not know any more after a command that `ForgetsBorders`.
  void TakeForgotten(ControlClient& node);

  /// Where `other` differs, by group.
  std::vector<Difference> Compare(const Borders& other) const;

  using Counts = std::map<std::string, size_t>;
  /// How many calls, commands and messages there are by now, with those that the peers have forgotten.  They
  /// only grow, so they tell how far the daemon has come.
  Counts Actions(ControlClient& node) const;

  using Groups = std::map<std::string, std::vector<std::string>>;
  const Groups& groups() const { return groups_; }
  void Add(const std::string& group, std::string line) { groups_[group].push_back(std::move(line)); }

 private:
  void TakeActions(ControlClient& node);
  void TakeCalls(ControlClient& node);
  void TakeCommands(ControlClient& node);
  void TakeMessages(ControlClient& node);
  void TakeObjects(ControlClient& node);
  void TakeFiles(ControlClient& node);
  void AddQuestion(const std::string& group, std::string line);

  Groups groups_;
};

/// Whether the command makes the switch libraries forget their calls.
bool ForgetsBorders(std::string_view command);

}  // namespace zem::sim
