#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"

namespace zem::sim {

/// The program behind the external log's socket: takes one connection after the other and splits what comes
/// into lines.  It can be away, not read, or read slowly.
///
/// Threads: all operations from any thread.
class LogCollector {
 public:
  enum class Reading { kFast, kSlow, kNot };

  struct State {
    bool running = false;
    uint64_t connections = 0;
    uint64_t lines = 0;
    uint64_t bytes = 0;
  };

  explicit LogCollector(std::string path);
  ~LogCollector();
  LogCollector(const LogCollector&) = delete;
  LogCollector& operator=(const LogCollector&) = delete;

  /// Returns an empty text, else why it does not run.
  std::string Start();
  /// Closes its connection and its socket.  False when it does not run.
  bool Stop();
  void SetReading(Reading reading);
  State state() const;
  /// The newest lines, oldest first.
  std::vector<std::string> Lines(size_t most) const;

 private:
  void Run();
  void Accept();
  void Read();
  void Take(const char* bytes, size_t size);
  void Wake();

  const std::string path_;
  zem::UniqueFd wake_;
  zem::UniqueFd listener_;
  zem::UniqueFd connection_;  // the thread's
  zem::NativeThread thread_;
  mutable std::mutex mutex_;  // guards what follows
  bool stopping_ = false;
  Reading reading_ = Reading::kFast;
  State state_;
  std::string part_;  // of a line
  std::deque<std::string> lines_;
};

}  // namespace zem::sim
