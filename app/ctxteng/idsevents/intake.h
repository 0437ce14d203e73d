#pragma once

#include <cstdint>
#include <memory>

#include "app/ctxteng/base/client_param.h"
#include "app/ctxteng/idsqueue/bounded_queue.h"
#include "app/ctxteng/idsqueue/capture_files.h"
#include "app/ctxteng/idsqueue/pcap_queue.h"
#include "app/ctxteng/idsqueue/rate_limiter.h"
#include "app/ctxteng/idsqueue/ready_flag.h"
#include "app/ctxteng/idsrecord/ids_event.h"

namespace IdsEvtEng {

struct IdsCounters;

/// The class of an alert or capture: the smaller the severity, the graver, and one that is not known is
/// critical.
enum class Class { kCritical, kNonCritical };

/// Where alerts and captures go in: limited, sorted by their class, and queued for the senders.
///
/// Threads: all operations from any thread; none of them waits.
class Intake {
 public:
  /// Throws std::runtime_error when a queue of alerts is to hold more than 65534 entries.
  Intake(const IdsParam& param, const CaptureFiles& files, IdsCounters& counters);

  /// Towards the manager.
  void AddEvent(std::unique_ptr<IdsEvent> event);
  /// Towards Kafka, and from there to the manager; to the manager at once when that queue is full.
  void AddKafkaEvent(std::unique_ptr<IdsEvent> event);

  /// Towards the manager.  A full queue lets its oldest capture go, with its file.
  void AddPcap(std::unique_ptr<IdsEvent> notice);
  /// Towards Kafka, and from there to the manager.  A full queue refuses the capture, and its file goes.
  void AddKafkaPcap(std::unique_ptr<IdsEvent> notice);

  using EventQueue = BoundedQueue<IdsEvent>;
  EventQueue& events(Class c) { return c == Class::kCritical ? critical_ : non_critical_; }
  EventQueue& kafka_events() { return kafka_; }
  PcapQueue& pcaps(Class c) { return c == Class::kCritical ? critical_pcap_ : non_critical_pcap_; }
  PcapQueue& kafka_pcaps() { return kafka_pcap_; }
  ReadyFlag& kafka_events_ready() { return kafka_ready_; }
  ReadyFlag& kafka_pcaps_ready() { return kafka_pcap_ready_; }

 private:
  Class ClassOf(const IdsEvent& event) const;
  bool MakeRoom(Class c, PcapQueue* queue);

  const int64_t critical_severity_;
  const CaptureFiles& files_;
  IdsCounters& counters_;
  RateLimiter critical_limiter_;
  RateLimiter non_critical_limiter_;
  EventQueue critical_;
  EventQueue non_critical_;
  EventQueue kafka_;
  PcapQueue critical_pcap_;
  PcapQueue non_critical_pcap_;
  PcapQueue kafka_pcap_;
  ReadyFlag kafka_ready_;
  ReadyFlag kafka_pcap_ready_;
};

/// The key of the capture that a notice announces.
inline CaptureKey KeyOf(const IdsEvent& notice) { return {notice.flow_id, notice.snip_ts_us}; }

}  // namespace IdsEvtEng
