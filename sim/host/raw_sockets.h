#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/core/clock.h"

namespace boost::asio {
class io_context;
}

namespace zem::sim {

/// The result of an exchange over a raw connection.
struct RawExchange {
  /// Empty, or why connecting or writing failed.
  std::string error;
  std::string received;
  /// True when the peer closed the connection within the time.
  bool closed = false;
};

/// Connects to a local port, or to a stream socket when `target` begins with "/", writes `bytes`, and reads
/// until the peer closes or `timeout` has passed.  With `leave` it closes at once instead of reading.
RawExchange ExchangeRaw(const std::string& target, const std::string& bytes, bool leave, Duration timeout);

/// Takes the place of a server: listens on local ports, writes fixed bytes to every client, and reads and
/// discards what clients send.
///
/// Threads: all operations from any thread; the sockets are served by the context's threads, whose loop has
/// to end before the object.
class RawListeners {
 public:
  explicit RawListeners(boost::asio::io_context& io);
  ~RawListeners();

  /// Throws boost::system::system_error when the port is taken.
  void Listen(uint16_t port, const std::string& greeting);
  /// Closes the listener and its connections.  Returns false when nothing listens on the port.
  bool Close(uint16_t port);
  /// The number of accepted connections, by port.
  std::map<uint16_t, uint64_t> Connections() const;

 private:
  class Listener;

  boost::asio::io_context& io_;
  mutable std::mutex mutex_;  // guards listeners_
  std::map<uint16_t, std::shared_ptr<Listener>> listeners_;
};

}  // namespace zem::sim
