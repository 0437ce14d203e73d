#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"

// librdkafka's own names, so that its header stays out of ours.
struct rd_kafka_s;
struct rd_kafka_topic_s;
struct rd_kafka_message_s;

namespace google::protobuf {
class MessageLite;
}

namespace Ctxt {
struct KafkaConfig;
}

namespace Ctxt::PaceClient {

/// Where clients report that their brokers are down or back.  Several share one alarm: it stands until each
/// client that has raised it has cleared it.
///
/// Threads: called by a client's own thread, and by the one that destroys the client; it may block them.
class KafkaAlarm {
 public:
  /// Only tells clients apart.
  using Client = const void*;

  virtual ~KafkaAlarm() = default;
  /// Returns false when the alarm is not wanted now; the client asks again while the brokers stay down.
  virtual bool Raise(Client client, const std::string& brokers) = 0;
  virtual void Clear(Client client, const std::string& brokers) = 0;
  /// False when what the client has raised was taken back over its head; the client then raises it again
  /// while the brokers stay down.
  virtual bool Stands(Client) const { return true; }
};

/// The deliveries that the library reported, of all topics and clients ("pcap-sent-kafka-succeed" and
/// "pcap-sent-kafka-failed").
struct KafkaDeliveries {
  std::atomic<uint64_t> succeeded{0};
  std::atomic<uint64_t> failed{0};
};

/// A producer of messages for up to four topics, over TLS.  It never changes: new settings mean a new client.
///
/// The library runs its callbacks inside a poll alone, so each client has a thread that polls when the
/// library has something to report, whether or not anybody sends.
///
/// Threads: `Send*` and `IsReady` from any thread; none of them waits for a broker.
/// Ownership: `alarm` (may be null) and `deliveries` outlive the client.
/// Limits: 64 MiB of messages wait for the brokers, and one message has at most 1,000,000 bytes; what does
/// not fit is refused and logged.
class KafkaClient {
 public:
  KafkaClient(const KafkaConfig& config, KafkaAlarm* alarm, KafkaDeliveries& deliveries);
  /// Waits up to 10 seconds for what was sent; see KafkaClientSlot for owners that cannot wait.
  ~KafkaClient();
  KafkaClient(const KafkaClient&) = delete;
  KafkaClient& operator=(const KafkaClient&) = delete;

  /// Whether the client could be made; says nothing about the brokers.
  bool IsReady() const { return ready_; }
  bool alarm_raised() const { return alarm_raised_; }
  struct Reading {
    std::string brokers;
    bool down = false;  ///< the library has said that all brokers are down, and none is back
  };
  /// Of all clients of the process.  From any thread.
  static std::vector<Reading> ReadAll();

  /// Clears the alarm also when this client has not raised it.  While the brokers stay down, the client asks
  /// for it again with its next report.
  void ClearAlarm();

  void SendContext(const google::protobuf::MessageLite& msg);
  void SendEvent(const google::protobuf::MessageLite& msg);
  void SendPcap(const google::protobuf::MessageLite& msg);

 private:
  struct Callbacks;
  enum Topic { kContext, kMetrics, kEvent, kPcap, kTopics };

  bool MakeProducer(const KafkaConfig& config);
  bool MakeTopics(const KafkaConfig& config);
  void DestroyProducer();
  void SendTo(Topic topic, const google::protobuf::MessageLite& msg);
  void StartPolling();
  void Poll();
  void StopPolling();
  void Wake();
  void TakeDelivery(const rd_kafka_message_s& message);
  void TakeStatistics(const char* json, size_t length);
  void TakeError(int code);
  void SettleAlarm();

  rd_kafka_s* producer_ = nullptr;
  std::array<rd_kafka_topic_s*, kTopics> topics_{};
  const std::string brokers_;
  std::atomic<bool> alarm_raised_{false};
  std::atomic<bool> ready_{false};
  const uint32_t flush_seconds_ = 10;

  KafkaAlarm* const alarm_;
  std::mutex alarm_mutex_;  // held while the alarm is told, so that alarm_raised_ is what it was told last
  KafkaDeliveries& deliveries_;
  // The library's callbacks only note what the alarm should be; SettleAlarm acts on it.
  std::atomic<bool> brokers_down_{false};
  std::atomic<bool> alarm_unsettled_{false};
  std::atomic<uint64_t> produced_{0};
  std::atomic<uint64_t> reported_{0};
  std::atomic<uint64_t> produced_last_period_{0};

  zem::UniqueFd wake_;  // the library writes to it when it has something to report
  std::atomic<bool> stopping_{false};
  zem::NativeThread poller_;
};

}  // namespace Ctxt::PaceClient
