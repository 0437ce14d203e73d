#pragma once

#include <cstdint>
#include <string>

#include "platform/core/clock.h"

namespace zem::sim {
class NodeProcess;
}  // namespace zem::sim

namespace zem::bench {

/// Asks the daemon of a node, in the manager's place, for the checksum of the configuration that it holds.
///
/// Threads: one.
class ChecksumQuestion {
 public:
  /// `node` has to outlive the object.
  ChecksumQuestion(sim::NodeProcess& node, std::string node_id);

  /// Returns an empty text when the daemon holds none.  The question is repeated after `again`, since it is
  /// lost while the daemon is not connected; throws std::runtime_error when no answer arrives within
  /// `patience`.
  std::string Ask(Duration again, Duration patience);

 private:
  sim::NodeProcess& node_;
  const std::string node_id_;
  uint64_t received_ = 0;  // messages that the manager has received so far
};

}  // namespace zem::bench
