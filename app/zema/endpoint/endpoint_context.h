#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "framework/tasks/runnable.h"
#include "platform/core/clock.h"

namespace zem {
class HostIdentity;
}  // namespace zem

namespace zem::zema {

class EndpointLibrary;
class LumCommands;
class MpaMessageSender;

/// What the tasks over tunnel endpoints work with.  Everything outlives them.
struct EndpointContext {
  LumCommands& lum;
  EndpointLibrary& library;
  HostIdentity& host;
  MpaMessageSender* sender = nullptr;
  /// `vtepDhcpIpTimeoutConfig.vtepDhcpIpFetchingTimeout`, in seconds.
  std::function<int()> fetching_timeout;
  /// Waits; false when the daemon is stopping.
  std::function<bool(Duration)> pause;
  /// Puts a task behind what waits for the time after host configurations.
  std::function<void(std::unique_ptr<Runnable>)> add_post_host_sync_task;
  /// The number of the configuration in force: what older ones still look for is of no interest.
  std::atomic<uint64_t> configuration = 0;

  EndpointContext(LumCommands& the_lum, EndpointLibrary& the_library, HostIdentity& the_host,
                  MpaMessageSender* the_sender, std::function<int()> timeout,
                  std::function<bool(Duration)> the_pause, std::function<void(std::unique_ptr<Runnable>)> add)
      : lum(the_lum),
        library(the_library),
        host(the_host),
        sender(the_sender),
        fetching_timeout(std::move(timeout)),
        pause(std::move(the_pause)),
        add_post_host_sync_task(std::move(add)) {}
};

}  // namespace zem::zema
