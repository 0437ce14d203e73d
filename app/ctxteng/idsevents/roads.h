#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "app/ctxteng/idsevents/ids_counters.h"

namespace Ctxt {
class CtxtChannel;
struct CtxtMsg;
}  // namespace Ctxt
namespace google::protobuf {
class Message;
}
namespace orlane::zem::context::ids {
class EventInfoMsg;
class PcapInfoMsg;
}  // namespace orlane::zem::context::ids

namespace IdsEvtEng {

class IIdsServices;

/// The applications that the engine is to the channel.
inline constexpr const char* kEventAppId = "1801";
inline constexpr const char* kEventAppType = "ZEM-IntrusionServices";
inline constexpr const char* kPcapAppId = "1802";
inline constexpr const char* kPcapAppType = "ZEM-IdsPcapService";

/// Takes a message of the engine where it goes, and counts what became of it.  What is not taken is lost.
class Road {
 public:
  virtual ~Road() = default;
  /// `alerts` is how many alerts the entries stand for.
  virtual void Send(std::shared_ptr<orlane::zem::context::ids::EventInfoMsg> message, uint64_t alerts) = 0;
  virtual void Send(std::shared_ptr<orlane::zem::context::ids::PcapInfoMsg> message) = 0;
  /// Alerts, and entries of messages, that were lost before they were sent.
  virtual RoadCounters& event_counters() = 0;
  virtual RoadCounters& pcap_counters() = 0;
  /// The bytes that one message may have.
  virtual size_t most_bytes() const = 0;
};

/// The road through the channel to the manager.
///
/// Threads: all operations from any thread; one message is sent at a time.
class ManagerRoad final : public Road {
 public:
  ManagerRoad(Ctxt::CtxtChannel& channel, IdsCounters& counters) : channel_(channel), counters_(counters) {}

  void Send(std::shared_ptr<orlane::zem::context::ids::EventInfoMsg> message, uint64_t alerts) override;
  void Send(std::shared_ptr<orlane::zem::context::ids::PcapInfoMsg> message) override;
  RoadCounters& event_counters() override { return counters_.manager; }
  RoadCounters& pcap_counters() override { return counters_.pcap_manager; }
  size_t most_bytes() const override;

  /// Sends a message as it is; returns whether the channel took it.
  bool Forward(const Ctxt::CtxtMsg& message, uint64_t entries, uint64_t alerts, RoadCounters* counters);

 private:
  Ctxt::CtxtChannel& channel_;
  IdsCounters& counters_;
  std::mutex send_mutex_;  // one message at a time
};

/// The road through the client's Kafka producer.
///
/// Threads: all operations from any thread.
class KafkaRoad final : public Road {
 public:
  KafkaRoad(IIdsServices& services, IdsCounters& counters) : services_(services), counters_(counters) {}

  void Send(std::shared_ptr<orlane::zem::context::ids::EventInfoMsg> message, uint64_t alerts) override;
  void Send(std::shared_ptr<orlane::zem::context::ids::PcapInfoMsg> message) override;
  RoadCounters& event_counters() override { return counters_.kafka; }
  RoadCounters& pcap_counters() override { return counters_.pcap_kafka; }
  size_t most_bytes() const override;

 private:
  struct KafkaTexts;
  static const KafkaTexts kEventTexts;
  static const KafkaTexts kPcapTexts;

  template <class Give>
  bool Send(const google::protobuf::Message& message, const KafkaTexts& texts, Give give);

  IIdsServices& services_;
  IdsCounters& counters_;
};

}  // namespace IdsEvtEng
