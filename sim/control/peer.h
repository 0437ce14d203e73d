#pragma once

#include <string>
#include <vector>

namespace zem::sim {

class CommandTable;

/// A process, library or device that the daemon meets, as the node sees it: commands behind one word, lines
/// of the picture of the node, and the rules that the daemon broke.
///
/// Threads: Register by the thread that makes the peer; the others from any thread.
class Peer {
 public:
  virtual ~Peer() = default;

  /// Registers the peer's commands in a table of its own.
  virtual void Register(CommandTable& table) = 0;
  /// What the daemon did that the real peer would not have accepted, oldest first.
  virtual std::vector<std::string> Violations() const { return {}; }
  /// The peer's part of "show node"; at most `most` objects are listed one by one.
  virtual std::vector<std::string> Draw(size_t /*most*/) const { return {}; }
};

}  // namespace zem::sim
