#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/core/condition.h"
#include "sim/sinks/datagram_sink.h"

namespace zem::sim {

/// One line as the system's log would store it.
struct LogLine {
  uint64_t number;
  int facility;
  int severity;
  std::string identity;  // "zem-tarvik"
  int pid;
  std::string text;
};

/// The node's system log: receives datagrams on a socket such as "/dev/log" and keeps the last lines.
///
/// `last_number` and `Find` see every line that was written before the call began.
///
/// Threads: all operations from any thread.
class LogSink {
 public:
  static constexpr size_t kMaxLines = 200000;

  /// Throws std::system_error when the socket cannot be bound.
  explicit LogSink(const std::string& path, std::function<void(const LogLine&)> follow = nullptr);

  uint64_t last_number() const;
  /// Lines numbered above `after` whose text matches the pattern (ECMAScript): the newest `limit` of them.
  std::vector<LogLine> Find(const std::string& pattern, uint64_t after, size_t limit) const;
  /// The first such line; waits for it up to `timeout`.
  std::optional<LogLine> Wait(const std::string& pattern, uint64_t after, Duration timeout) const;

 private:
  void Take(LogLine line);
  void AwaitWritten() const;

  const std::function<void(const LogLine&)> follow_;

  mutable std::mutex mutex_;  // guards what follows
  mutable Condition added_;
  std::deque<LogLine> lines_;
  uint64_t last_number_ = 0;

  DatagramSink socket_;  // destroyed first, because it calls back
};

/// Parses "<PRI>Mmm dd hh:mm:ss identity[pid]: text"; a datagram of another form is kept as text in full.
LogLine ParseLogLine(std::string_view datagram);

}  // namespace zem::sim
