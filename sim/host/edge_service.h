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

/// The edge's own service: takes the edge into maintenance mode and out of it, one HTTP request per
/// connection.  It keeps the mode, and notes each request that breaks HTTP or that it does not know.
///
/// Threads: Start and Stop by one, the rest from any; connections are served one after the other.
class EdgeService {
 public:
  static constexpr uint16_t kPort = 7441;

  /// `port` 0: any free one.  Throws std::system_error.
  explicit EdgeService(uint16_t port = kPort);
  ~EdgeService();
  EdgeService(const EdgeService&) = delete;
  EdgeService& operator=(const EdgeService&) = delete;

  /// Closes the socket and its connection, or listens again on the same port.  Again is harmless.
  void Stop();
  void Start();

  /// What happens to a request instead of the usual answer; but for kStatus, the mode has changed then.
  struct Fault {
    enum class Kind {
      kStatus,  ///< refused with `status`
      kBody,    ///< `text` as body
      kRaw,     ///< `text` and nothing else
      kHold,    ///< the same, and the connection stays
      kClose,   ///< the connection ends without an answer
      kNever,   ///< silence, as long as the other side waits
      kLate,    ///< the usual answer, `delay` later
    };
    Kind kind = Kind::kClose;
    unsigned status = 500;
    std::string text;
    Duration delay{0};
  };
  /// For the next requests, in order.
  void Add(const Fault& fault, int count = 1);

  struct State {
    uint16_t port = 0;
    bool listening = false;
    bool maintenance = false;
    /// Headers and body, as they came.
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
