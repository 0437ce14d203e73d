#pragma once

#include <functional>
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
  std::string Execute(std::string_view command) { return Execute(command, false); }
  /// The same; `again` tells the observer that it is the last one, once more, in wait for another answer.
  std::string Execute(std::string_view command, bool again);

  /// Called before each command, with an empty answer, and behind it.
  using Observer = std::function<void(const std::string& command, const std::string& answer, bool again)>;
  void SetObserver(Observer observer) { observer_ = std::move(observer); }

 private:
  UniqueFd socket_;
  std::string Exchange(std::string_view command);

  std::string received_;
  Observer observer_;
};

}  // namespace zem::sim
