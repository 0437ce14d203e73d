#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"

namespace zem::sim {

/// Binds a datagram socket in the file system and passes the received datagrams to a callback.
///
/// Threads: the callback runs on the sink's own thread, until the destructor has returned.
class DatagramSink {
 public:
  struct Options {
    std::string path;
    std::string thread_name;
    /// The largest datagram, in bytes; longer ones are truncated.
    size_t max_datagram;
    /// The socket's receive buffer in bytes, beyond the system's limit where that is permitted; 0 keeps the
    /// default.
    int receive_buffer = 0;
  };

  /// Throws std::system_error when the socket cannot be bound.
  DatagramSink(Options options, std::function<void(std::string_view)> take);
  ~DatagramSink();
  DatagramSink(const DatagramSink&) = delete;
  DatagramSink& operator=(const DatagramSink&) = delete;

  /// Returns true when everything that was sent before this call has been passed on.  From any thread.
  bool Drained() const;

 private:
  void Receive();

  const Options options_;
  const std::function<void(std::string_view)> take_;
  // Held from the reading of a datagram until the callback has returned, so that each datagram is always
  // either in the socket or behind this lock.
  mutable std::mutex hand_over_;
  UniqueFd socket_;
  UniqueFd stop_read_;
  UniqueFd stop_write_;
  NativeThread thread_;
};

}  // namespace zem::sim
