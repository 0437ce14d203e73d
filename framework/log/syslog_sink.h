#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"

namespace zem {

/// The way to the node's syslog daemon.  A daemon that does not read, or is away, holds up nobody: lines wait
/// in a buffer of `kMost` bytes then, a thread sends them as soon as the daemon reads, and what does not fit
/// is dropped, the oldest first, and counted in the first line that gets through.
///
/// Threads: `Write` and `Exit` from any thread, `Exit` from a signal handler too; `Start` and `Stop` by the
/// owner.
class SyslogSink {
 public:
  static constexpr size_t kMost = 4 << 20;

  struct Options {
    std::string path = "/dev/log";
    std::string identity;
    /// The text of the line that reports lost lines.
    std::function<std::string(uint64_t)> loss_line;
  };

  explicit SyslogSink(Options options);
  ~SyslogSink();
  SyslogSink(const SyslogSink&) = delete;
  SyslogSink& operator=(const SyslogSink&) = delete;

  void Start();
  /// Sends what waits, as long as the daemon reads.
  void Stop();

  /// `priority` is facility and severity.
  void Write(int priority, std::string_view text);

  /// Ends the process; lines that wait go first, as long as the daemon reads.  Returns when they do.
  void Exit(int code);

  /// Dropped lines that have not been reported yet.
  uint64_t lost() const;

 private:
  enum class Sent {
    kYes,
    kFull,   // the daemon does not read
    kAway,   // there is no daemon
    kNever,  // this line is not for a datagram
  };

  Sent Send(const std::string& line);
  bool Connect();
  void Wait(std::string line);
  /// False when lines are left.
  bool SendWaiting();
  std::string Frame(int priority, std::string_view text) const;
  void Run();
  /// Sends until nothing waits or the daemon takes nothing for `kPatienceMs`.
  void Drain();
  void Wake();

  static constexpr int kPatienceMs = 1000;
  static constexpr int kReconnectMs = 1000;

  const Options options_;
  const pid_t pid_;
  const UniqueFd wake_;

  mutable std::mutex mutex_;  // guards what follows; nothing under it blocks
  UniqueFd socket_;
  std::deque<std::string> waiting_;
  size_t waiting_bytes_ = 0;
  uint64_t lost_ = 0;

  std::atomic<size_t> waiting_count_{0};  // of waiting_, for signal handlers
  std::atomic<bool> running_{false};
  std::atomic<bool> stop_{false};
  std::atomic<int> exit_code_{-1};
  std::optional<NativeThread> thread_;
};

}  // namespace zem
