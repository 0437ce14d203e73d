#pragma once

#include <cstdint>
#include <string>

#include "platform/core/clock.h"
#include "sim/replay/recording.h"

namespace zem::sim {

class ControlClient;

/// Writes down what a client does to a node.
///
/// Threads: the client's.
class Recorder {
 public:
  /// `looks` is another connection to the node; both outlive the recorder.
  Recorder(ControlClient& client, ControlClient& looks, Recording recording);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  /// The whole of it, with what the daemon has done by now; nothing is written down afterwards.
  Recording Finish();

 private:
  void Before(const std::string& command, bool again);
  void Behind(const std::string& command, const std::string& answer, bool again);

  ControlClient& client_;
  ControlClient& looks_;
  Recording recording_;
  const TimePoint begun_;
  int64_t at_ms_ = 0;
  bool daemon_ran_ = false;
  Borders::Counts seen_;  // before the last command
  Borders::Counts more_;  // what of it is more than before the command before
};

}  // namespace zem::sim
