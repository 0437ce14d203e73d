#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "ctl/json.h"

namespace zem::ctl {

/// Asks the daemon's command socket.  Each question has a connection of its own, so that one that is answered
/// late leaves nothing behind for the next.
class DaemonClient {
 public:
  DaemonClient(std::string socket_path, std::chrono::milliseconds timeout)
      : path_(std::move(socket_path)), timeout_(timeout) {}

  /// The daemon's answer.  Throws Failure: kNoDaemon when none answers within the time, kDegraded with the
  /// daemon's words when it refuses.
  std::string Ask(const std::string& command, const std::vector<std::string>& arguments = {}) const;
  /// The same for an answer that is JSON; one that is not is a Failure, too.
  Json AskJson(const std::string& command, const std::vector<std::string>& arguments = {}) const;

  const std::string& socket_path() const { return path_; }
  int64_t timeout_ms() const { return timeout_.count(); }

 private:
  const std::string path_;
  const std::chrono::milliseconds timeout_;
};

}  // namespace zem::ctl
