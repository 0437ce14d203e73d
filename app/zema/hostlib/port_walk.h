#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zem::zema {

class SwitchLibrary;

/// Goes through the ports of switches as they are when each switch's turn comes.
///
/// Threads: one owner.
class PortWalk {
 public:
  /// Called for each port; true ends the walk.
  using Visitor = std::function<bool(const std::string& dvs, const std::string& port)>;

  PortWalk(const SwitchLibrary& library, std::vector<std::string> switches)
      : library_(library), switches_(std::move(switches)) {}

  /// True when the visitor ended it.  A switch whose ports cannot be listed is logged and left out.
  bool Visit(const Visitor& visitor);
  /// The switches that could not be listed.
  size_t failed() const { return failed_; }

 private:
  const SwitchLibrary& library_;
  const std::vector<std::string> switches_;
  size_t failed_ = 0;
};

}  // namespace zem::zema
