#pragma once

#include <functional>
#include <memory>
#include <string>

#include "app/zema/common/runnable.h"
#include "platform/core/clock.h"

namespace zem::zema {

class EndpointLibrary;
class HostIdentity;
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
};

}  // namespace zem::zema
