#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"

namespace zem::sim {

/// Binds a datagram socket in the file system and hands over what arrives.
///
/// Threads: the callback runs on a thread of the sink's own, until the sink's end has returned.
class DatagramSink {
 public:
  struct Options {
    std::string path;
    std::string thread_name;
    /// Bytes; what is longer is cut.
    size_t max_datagram;
    /// Bytes that may wait in the socket, beyond the system's limit where that is permitted; 0 leaves it.
    int receive_buffer = 0;
  };

  /// Throws std::system_error when the socket cannot be bound.
  DatagramSink(Options options, std::function<void(std::string_view)> take);
  ~DatagramSink();
  DatagramSink(const DatagramSink&) = delete;
  DatagramSink& operator=(const DatagramSink&) = delete;

  /// True when everything that was sent before this call has been handed over.  From any thread.
  bool Drained() const;

 private:
  void Receive();

  const Options options_;
  const std::function<void(std::string_view)> take_;
  // Held from the reading of a datagram until it has been handed over, so that it is always in one of the two
  // places.
  mutable std::mutex hand_over_;
  UniqueFd socket_;
  UniqueFd stop_read_;
  UniqueFd stop_write_;
  NativeThread thread_;
};

}  // namespace zem::sim
