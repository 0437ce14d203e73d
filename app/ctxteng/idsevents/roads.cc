#include "app/ctxteng/idsevents/roads.h"

#include <exception>

#include "app/ctxteng/base/ctxt_msg.h"
#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/channel/payload_types.h"
#include "app/ctxteng/idsevents/ids_services.h"
#include "framework/log/log.h"
#include "proto/context/ids.pb.h"

namespace IdsEvtEng {
namespace {

using orlane::zem::context::ids::EventInfoMsg;
using orlane::zem::context::ids::PcapInfoMsg;

constexpr zem::LogSource kLog{"tarvik", "idsevt"};

// A frame to the manager has at most 16 MiB, a message to Kafka at most a million bytes.
constexpr size_t kMostToManager = size_t{8} << 20;
constexpr size_t kMostToKafka = 900000;

void Count(bool sent, uint64_t entries, uint64_t alerts, RoadCounters* counters) {
  (sent ? counters->proto_sent : counters->proto_dropped) += entries;
  (sent ? counters->alert_sent : counters->alert_dropped) += alerts;
}

}  // namespace

// The lines of one kind of message.
struct KafkaRoad::KafkaTexts {
  const char* not_ready;
  const char* sending;
  const char* failed;
};
constexpr KafkaRoad::KafkaTexts KafkaRoad::kEventTexts = {
    "Failed to to send. IDS kafka is not initialized", "Sending kafka event to ZEM-i and QRD : %s  bytes: %d",
    "Sending kafka event msg to ZEM-i and QRD failed"};
constexpr KafkaRoad::KafkaTexts KafkaRoad::kPcapTexts = {
    "Failed to to send IDS kafka is not initialized", "Sending pcap event to ZEM-i and QRD : %s  bytes: %d",
    "Sending pcap event msg to ZEM-i and QRD failed"};

size_t ManagerRoad::most_bytes() const { return kMostToManager; }
size_t KafkaRoad::most_bytes() const { return kMostToKafka; }

void ManagerRoad::Send(std::shared_ptr<EventInfoMsg> message, uint64_t alerts) {
  Ctxt::CtxtMsg envelope;
  envelope.appId = kEventAppId;
  envelope.appType = kEventAppType;
  envelope.msgType = "com.orlane.zem.context";
  envelope.payloadType = Ctxt::kEventInfoMsg;
  envelope.payloadLen = message->ByteSizeLong();
  const auto entries = static_cast<uint64_t>(message->event_info_size());
  envelope.payload = std::move(message);
  Forward(envelope, entries, alerts, &counters_.manager);
}

void ManagerRoad::Send(std::shared_ptr<PcapInfoMsg> message) {
  Ctxt::CtxtMsg envelope;
  envelope.appId = kPcapAppId;
  envelope.appType = kPcapAppType;
  envelope.msgType = "orlane.zem.context";
  envelope.payloadType = Ctxt::kPcapInfoMsg;
  envelope.payloadLen = message->ByteSizeLong();
  const auto entries = static_cast<uint64_t>(message->pcap_size());
  envelope.payload = std::move(message);
  Forward(envelope, entries, entries, &counters_.pcap_manager);
}

bool ManagerRoad::Forward(const Ctxt::CtxtMsg& message, uint64_t entries, uint64_t alerts,
                          RoadCounters* counters) {
  int status = -1;
  try {
    const std::lock_guard lock(send_mutex_);
    status = channel_.SendMsg(message, true);
  } catch (const std::exception& error) {
    ZLOG_WARN("The message %s was not sent: %s", message.payloadType.c_str(), error.what());
  }
  Count(status >= 0, entries, alerts, counters);
  return status >= 0;
}

void KafkaRoad::Send(std::shared_ptr<EventInfoMsg> message, uint64_t alerts) {
  const bool sent = Send(*message, kEventTexts, [&] { return services_.SendKafkaEvent(*message); });
  Count(sent, static_cast<uint64_t>(message->event_info_size()), alerts, &counters_.kafka);
}

void KafkaRoad::Send(std::shared_ptr<PcapInfoMsg> message) {
  const bool sent = Send(*message, kPcapTexts, [&] { return services_.SendKafkaPcap(*message); });
  const auto entries = static_cast<uint64_t>(message->pcap_size());
  Count(sent, entries, entries, &counters_.pcap_kafka);
}

template <class Give>
bool KafkaRoad::Send(const google::protobuf::Message& message, const KafkaTexts& texts, Give give) {
  if (!services_.IsKafkaReady()) {
    ZLOG_WARN("%s", texts.not_ready);
    return false;
  }
  ZLOG_DEBUG(texts.sending, message.GetTypeName().c_str(), static_cast<int>(message.ByteSizeLong()));
  try {
    if (give() >= 0) return true;
  } catch (const std::exception& error) {
    ZLOG_WARN("The message %s was not sent: %s", message.GetTypeName().c_str(), error.what());
  }
  ZLOG_WARN("%s", texts.failed);
  return false;
}

}  // namespace IdsEvtEng
