#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace zem {
class AsioZemProvider;
}

namespace zem::sim {

class CommandTable;

/// Serves a command table on an AF_UNIX stream socket: one command per line, one JSON line per answer.  The
/// commands of one client run one at a time, each after the previous one was answered; any number of clients
/// may be connected.
///
/// Threads: the commands run on the provider's threads.
/// Ownership: `table` and the provider have to outlive the server; destroy it on the provider's one thread or
/// after its loop has ended, so that no command is running.
///
/// Limits: a line of more than 1 MiB is answered with an error and ends its client.
class ControlServer {
 public:
  static constexpr size_t kMaxLine = size_t{1} << 20;

  /// Listens at `path`.  A socket file whose process has ended is replaced; if another process serves it, or
  /// the file is not a socket, throws std::system_error.
  ControlServer(AsioZemProvider& provider, const CommandTable& table, const std::string& path);
  /// Closes all clients and removes the socket.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace zem::sim
