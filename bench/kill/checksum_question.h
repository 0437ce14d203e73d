#pragma once

#include <cstdint>
#include <string>

#include "platform/core/clock.h"

namespace zem::sim {
class NodeProcess;
}  // namespace zem::sim

namespace zem::bench {

/// Asks the daemon of a node, as the manager, for the checksum of the configuration that it holds.
///
/// Threads: one.
class ChecksumQuestion {
 public:
  /// `node` has to outlive the object.
  ChecksumQuestion(sim::NodeProcess& node, std::string node_id);

  /// Empty: it holds none.  A question is repeated after `again`, since nobody hears it before the daemon is
  /// connected; std::runtime_error when none is answered within `patience`.
  std::string Ask(Duration again, Duration patience);

 private:
  sim::NodeProcess& node_;
  const std::string node_id_;
  uint64_t received_ = 0;  // of the messages that the manager has got
};

}  // namespace zem::bench
