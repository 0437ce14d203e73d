#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <utility>

#include "platform/core/clock.h"

namespace zem {
class HostIdentity;
}  // namespace zem

namespace zem::zema {

class EndpointLibrary;
class LumCommands;
class MpaMessageSender;
class OptionsStore;
class TaskQueues;

/// The objects that the tasks for tunnel endpoints use.  Everything that it refers to outlives the tasks.
struct EndpointContext {
  EndpointContext(LumCommands& the_lum, EndpointLibrary& the_library, HostIdentity& the_host,
                  TaskQueues& queues, OptionsStore& realization_options, MpaMessageSender* the_sender,
                  std::function<bool(Duration)> the_pause)
      : lum(the_lum),
        library(the_library),
        host(the_host),
        workers(queues),
        options(realization_options),
        sender(the_sender),
        pause(std::move(the_pause)) {}

  LumCommands& lum;
  EndpointLibrary& library;
  HostIdentity& host;
  TaskQueues& workers;
  OptionsStore& options;
  MpaMessageSender* const sender;
  /// Waits; returns false when the daemon is stopping.
  const std::function<bool(Duration)> pause;
  /// The number of the configuration in force: a task for an older one stops looking for addresses.
  std::atomic<uint64_t> configuration = 0;
};

}  // namespace zem::zema
