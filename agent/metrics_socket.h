#pragma once

#include <functional>
#include <memory>
#include <string>

namespace zem::Tarvik {

/// Serves the metrics over HTTP on a unix socket, as monitoring scrapes them: every GET of "/metrics" is
/// answered with the text that `report` gives.
///
/// Threads: one of its own, which also runs `report`.
/// Limits: 16 connections; a request has at most 8 KiB, and comes within 5 seconds.
class MetricsSocket {
 public:
  MetricsSocket(std::string path, std::function<std::string()> report);
  /// Ends the thread and removes the socket.
  ~MetricsSocket();
  MetricsSocket(const MetricsSocket&) = delete;
  MetricsSocket& operator=(const MetricsSocket&) = delete;

  /// Makes the socket.  Returns false, after an error line, when that is not possible.  A file that is no
  /// socket is left where it is.
  [[nodiscard]] bool Start();

 private:
  class Server;

  const std::string path_;
  const std::function<std::string()> report_;
  std::unique_ptr<Server> server_;
};

}  // namespace zem::Tarvik
