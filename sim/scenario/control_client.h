#pragma once

#include <string>
#include <string_view>

#include "platform/core/clock.h"
#include "platform/core/unique_fd.h"

namespace zem::sim {

/// A connection to a node's control socket: sends one command, receives one line of JSON.
///
/// Threads: one.
class ControlClient {
 public:
  /// Throws std::system_error when the socket is not served within `patience`.
  explicit ControlClient(const std::string& path, Duration patience = Duration::zero());

  /// Throws std::system_error when the node has closed the connection.
  std::string Execute(std::string_view command);

 private:
  UniqueFd socket_;
  std::string received_;
};

}  // namespace zem::sim
