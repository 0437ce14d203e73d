#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"

namespace zem::sim::capture {

/// The remote receiver of a capture: takes GRE in UDP on all addresses of the node, and looks into each
/// datagram.
///
/// Threads: all operations from any thread.
class GreReceiver {
 public:
  static constexpr uint16_t kPort = 4754;

  /// Throws std::runtime_error when the port is taken.
  GreReceiver();
  ~GreReceiver();

  struct State {
    uint64_t datagrams = 0;
    /// Those that are no GRE of an Ethernet frame with a key.
    uint64_t malformed = 0;
    /// How many came with each key, in hexadecimal.
    std::map<std::string, uint64_t> keys;
    /// The numbers of the packets inside; -1 for one without.
    std::vector<int64_t> numbers;
  };
  State state() const;

 private:
  void Run();
  void Take(const char* bytes, size_t size);

  UniqueFd socket_;
  UniqueFd wake_;
  mutable std::mutex mutex_;  // guards state_
  State state_;
  NativeThread thread_;
};

}  // namespace zem::sim::capture
