#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace Ctxt::PaceClient {

/// What the flow context client has seen and sent since the process started.
///
/// Threads: written and read from any thread.
struct FlowStatistics {
  using Counter = std::atomic<uint32_t>;

  Counter vm_events{0};
  Counter conn_events{0};
  Counter vm_power_on_events{0};
  Counter system_events{0};
  Counter vm_power_off_events{0};
  Counter service_events{0};
  Counter service_listen_start_events{0};
  Counter service_listen_stop_events{0};
  Counter user_events{0};
  Counter user_logon_events{0};
  Counter user_logoff_events{0};
  Counter user_connect_events{0};
  Counter user_disconnect_events{0};
  Counter vms{0};
  Counter processes{0};
  Counter users{0};
  Counter context_msgs_sent{0};
  Counter context_msg_bytes_sent{0};
  Counter metrics_msgs_sent{0};
  Counter metrics_msg_bytes_sent{0};

  /// Not in the line: events that found no place, in a queue or in the map.
  Counter dropped{0};

  /// The line of all counters.
  std::string Text() const;
};

}  // namespace Ctxt::PaceClient
