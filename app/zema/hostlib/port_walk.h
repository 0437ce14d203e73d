#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zem::zema {

class SwitchLibrary;

/// Visits the ports of switches.  Each switch's ports are listed when its turn comes.
///
/// Threads: one owner.
class PortWalk {
 public:
  /// Called for each port; true ends the walk.
  using Visitor = std::function<bool(const std::string& dvs, const std::string& port)>;

  PortWalk(const SwitchLibrary& library, std::vector<std::string> switches)
      : library_(library), switches_(std::move(switches)) {}

  /// Returns true when the visitor ended the walk.  A switch whose ports cannot be listed is logged and
  /// skipped.
  bool Visit(const Visitor& visitor);
  /// The number of switches whose ports could not be listed.
  size_t failed() const { return failed_; }

 private:
  const SwitchLibrary& library_;
  const std::vector<std::string> switches_;
  size_t failed_ = 0;
};

}  // namespace zem::zema
