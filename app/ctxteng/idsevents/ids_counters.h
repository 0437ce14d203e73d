#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <string_view>

#include "app/ctxteng/kafka/kafka_client.h"

namespace IdsEvtEng {

using Counter = std::atomic<uint64_t>;

/// Where batches of one kind, alerts or captures, ended on one road.
struct RoadCounters {
  /// Entries of messages; alerts that were merged count once.
  Counter proto_sent{0};
  Counter proto_dropped{0};
  /// The same before merging.
  Counter alert_sent{0};
  Counter alert_dropped{0};
};

/// What became of the alerts and captures that the host's detection process announced.
///
/// Threads: written and read from any thread.
struct IdsCounters {
  Counter total{0};
  Counter critical{0};
  Counter non_critical{0};
  RoadCounters manager;
  Counter dropped_queue{0};
  RoadCounters kafka;
  Counter dropped_kafka_queue{0};
  Counter pcap_total{0};
  Counter pcap_critical{0};
  Counter pcap_non_critical{0};
  RoadCounters pcap_manager;
  Counter pcap_dropped_queue{0};
  RoadCounters pcap_kafka;
  /// What the Kafka clients report; every client that sends alerts is made with it.
  Ctxt::PaceClient::KafkaDeliveries deliveries;

  /// Not shown to operators: alerts that the rate limiter held back, and captures that the queue towards
  /// Kafka refused.
  Counter rate_limited{0};
  Counter pcap_dropped_kafka_queue{0};

  /// Calls `visit` with each counter that operators see, in the order in which they see them.
  void ForEach(const std::function<void(std::string_view name, Counter& counter)>& visit);
  void Clear();

  /// The process's counters, which outlive every engine.
  static IdsCounters& Process();
};

}  // namespace IdsEvtEng
