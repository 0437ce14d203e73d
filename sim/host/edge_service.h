#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/clock.h"
#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"

namespace zem::sim {

/// The edge's own service: puts the edge into maintenance mode and takes it out again, one HTTP request per
/// connection.  It keeps the mode and records each request that is not valid HTTP or that it does not know.
///
/// Threads: `Start` and `Stop` by one thread, the rest from any; connections are served one after another.
class EdgeService {
 public:
  static constexpr uint16_t kPort = 7441;

  /// `port` 0 takes any free port.  Throws std::system_error.
  explicit EdgeService(uint16_t port = kPort);
  ~EdgeService();
  EdgeService(const EdgeService&) = delete;
  EdgeService& operator=(const EdgeService&) = delete;

  /// Closes the socket and its connection, or listens again on the same port.  Calling it twice has no
  /// effect.
  void Stop();
  void Start();

  /// Replaces the usual answer to a request.  The mode has changed by then, except for kStatus.
  struct Fault {
    enum class Kind {
      kStatus,  ///< refuses with the HTTP status `status`; the mode stays
      kBody,    ///< answers with `text` as the body
      kRaw,     ///< sends `text` and nothing else
      kHold,    ///< sends `text` and keeps the connection open
      kClose,   ///< closes the connection without an answer
      kNever,   ///< never answers
      kLate,    ///< sends the usual answer after `delay`
    };
    Kind kind = Kind::kClose;
    unsigned status = 500;
    std::string text;
    Duration delay{0};
  };
  /// The faults for the next requests, in order.
  void Add(const Fault& fault, int count = 1);

  struct State {
    uint16_t port = 0;
    bool listening = false;
    bool maintenance = false;
    /// Headers and body, as received.
    std::vector<std::string> requests;
    std::vector<std::string> violations;
  };
  State state() const;

 private:
  void Serve();
  void Answer(int connection);
  bool ReadRequest(int connection, std::string* request) const;
  std::string Carry(const std::string& request);
  bool WaitFor(int fd, Duration limit) const;

  mutable std::mutex mutex_;  // guards what follows
  State state_;
  std::deque<Fault> faults_;

  UniqueFd listener_;
  UniqueFd wake_;
  NativeThread thread_;
};

}  // namespace zem::sim
