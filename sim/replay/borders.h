#pragma once

#include <iosfwd>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace zem::sim {

class ControlClient;

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
  /// Adds what the peers of a node know by now and `Forget` has not made them forget.
  void Take(ControlClient& node);

  /// Prints where `other` differs, "-" for what only this has and "+" for what only the other has, some lines
  /// of each group; returns in how many groups.
  size_t Compare(const Borders& other, std::ostream& out) const;

  using Groups = std::map<std::string, std::vector<std::string>>;
  const Groups& groups() const { return groups_; }
  void Add(const std::string& group, std::string line) { groups_[group].push_back(std::move(line)); }

 private:
  void TakeCalls(ControlClient& node);
  void TakeCommands(ControlClient& node);
  void TakeMessages(ControlClient& node);
  void TakeObjects(ControlClient& node);
  void TakeFiles(ControlClient& node);
  void AddQuestion(const std::string& group, std::string line);

  Groups groups_;
};

/// Whether the command makes peers forget what `Borders::Take` reads.
bool ForgetsBorders(std::string_view command);

}  // namespace zem::sim
