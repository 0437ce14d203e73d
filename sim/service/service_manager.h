#pragma once

#include <sys/types.h>

#include <array>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/core/clock.h"

namespace zem {
class AsioZemProvider;
class Timer;
}  // namespace zem

namespace zem::sim {

class DaemonProcess;

/// The service manager's side of the daemon: the socket on which the daemon tells how it is, and the
/// watchdog, which kills and restarts a daemon that has been silent for too long.  As for a unit with
/// NotifyAccess=main, only the daemon's own process is listened to.
///
/// Threads: the provider's; operations from any thread.
class ServiceManager {
 public:
  /// Sets the daemon's variables.  Throws std::system_error when the socket cannot be made.
  ServiceManager(AsioZemProvider& provider, DaemonProcess& daemon);
  ~ServiceManager();
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;

  /// The daemon's next starts have a watchdog of that time; zero: none.  It runs from the moment at which the
  /// daemon says that it is ready.
  void SetWatchdog(Duration timeout);

  struct State {
    pid_t pid = 0;  // of the daemon that spoke last
    bool ready = false;
    std::string status;
    /// How often the daemon has fed the watchdog since its start, and the longest time between two feeds.
    uint64_t fed = 0;
    Duration longest_pause{};
    /// Restarts by the watchdog, and what the daemon's last words were before the last one.
    uint64_t restarts = 0;
    std::string status_before_restart;
    /// Datagrams of other processes.
    uint64_t foreign = 0;
  };
  State state() const;

 private:
  void Wait();
  void Receive();
  void Take(std::string_view text, pid_t sender);
  void Look();

  DaemonProcess& daemon_;
  boost::asio::posix::stream_descriptor socket_;
  std::shared_ptr<Timer> timer_;
  mutable std::mutex mutex_;  // guards what follows
  State state_;
  Duration watchdog_{};
  TimePoint last_fed_;
};

}  // namespace zem::sim
