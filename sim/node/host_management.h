#pragma once

#include <memory>
#include <string>

#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"

namespace zem::sim {

/// The socket of the host management daemon: takes connections and holds them.
///
/// Threads: all operations from any thread.
class HostManagement {
 public:
  static constexpr const char* kSocket = "/run/orlane/opaquenetwork_corvd_service";

  explicit HostManagement(std::string path = kSocket);
  ~HostManagement();

  /// Closes the socket and all connections; again is harmless.
  void Stop();
  /// Listens again.  Throws std::system_error.
  void Start();

  struct State {
    bool listening = false;
    bool connected = false;
    uint64_t connections = 0;
  };
  State state() const;

 private:
  void Serve();

  const std::string path_;
  mutable std::mutex mutex_;  // guards what follows
  UniqueFd listener_;
  UniqueFd stop_event_;
  State state_;
  Thread thread_;
};

}  // namespace zem::sim
