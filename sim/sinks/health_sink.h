#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/core/clock.h"
#include "sim/sinks/datagram_sink.h"

namespace zem::sim {

/// The node's health service: receives the reports of agents and calls an agent stale when it has been silent
/// for the time that its own heartbeat states.
///
/// Threads: all operations from any thread.
class HealthSink {
 public:
  explicit HealthSink(const std::string& path);

  struct Health {
    bool known = false;
    bool stale = false;
    std::string agent;
    uint32_t pid = 0;
    uint64_t heartbeats = 0;
    uint64_t metrics = 0;
    uint64_t missed = 0;       // gaps in the sequence
    uint64_t unparsable = 0;   // datagrams that could not be parsed
    std::string proxy_status;  // "up", "down", or empty before the first metric
  };
  Health health() const;

 private:
  void Take(const char* data, size_t size);

  mutable std::mutex mutex_;  // guards what follows
  Health health_;
  uint64_t last_sequence_ = 0;
  TimePoint last_heard_;
  Duration stale_after_{};

  DatagramSink socket_;  // destroyed first, because it calls back
};

}  // namespace zem::sim
