#include "app/ctxteng/idsevents/inbound.h"

#include "app/ctxteng/base/ctxt_msg.h"
#include "app/ctxteng/channel/payload_types.h"
#include "app/ctxteng/idsevents/roads.h"
#include "app/ctxteng/idsqueue/node_records.h"
#include "framework/log/log.h"
#include "proto/context/ids.pb.h"

namespace IdsEvtEng {
namespace {

using orlane::zem::context::ids::EventInfoMsg;
using orlane::zem::context::ids::PcapInfoMsg;

constexpr zem::LogSource kLog{"tarvik", "idsevt"};

// The message of the type; null, after a log line, for what is none.
template <class Message>
const Message* PayloadOf(const std::shared_ptr<Ctxt::CtxtMsg>& message, const char* type,
                         const char* no_message) {
  if (message == nullptr) {
    ZLOG_CTX_ERROR(701, "%s", no_message);
    return nullptr;
  }
  if (message->payloadType != type) {
    ZLOG_ERROR("ERR_CTXT_RMQ_INVALID_PAYLOAD_TYPE", "Ids:: Invalid payload type: %s, ignoring",
               message->payloadType.c_str());
    return nullptr;
  }
  const auto* const payload = dynamic_cast<const Message*>(message->payload.get());
  if (payload == nullptr) ZLOG_CTX_ERROR(701, "  Callback received with null payload");
  return payload;
}

}  // namespace

void Inbound::OnEvents(const std::shared_ptr<Ctxt::CtxtMsg>& message) {
  const auto* const events =
      PayloadOf<EventInfoMsg>(message, Ctxt::kEventInfoMsg, " Ids Received CB with null Msg");
  if (events == nullptr) return;
  if (events->event_info_size() == 0) {
    ZLOG_WARN("Received Msg with no eventInfo");
    return;
  }
  const auto entries = static_cast<uint32_t>(events->event_info_size());
  if (events->has_event_node_hdr()) {
    const auto& node = events->event_node_hdr();
    nodes_.Take(node.node_id(), node.sequence_number(), entries);
  }
  uint64_t alerts = 0;
  for (const auto& info : events->event_info()) alerts += info.has_count() ? info.count() : 1;
  if (manager_.Forward(*message, entries, alerts, &manager_.event_counters()))
    ZLOG_TRACE("Successfully sent event msg to MP");
}

void Inbound::OnPcaps(const std::shared_ptr<Ctxt::CtxtMsg>& message) {
  const auto* const pcaps =
      PayloadOf<PcapInfoMsg>(message, Ctxt::kPcapInfoMsg, " Ids Pcap Received CB with null Msg");
  if (pcaps == nullptr) return;
  const auto entries = static_cast<uint64_t>(pcaps->pcap_size());
  if (manager_.Forward(*message, entries, entries, &manager_.pcap_counters())) {
    ZLOG_TRACE("Successfully sent pcap msg to MP");
  } else {
    ZLOG_WARN("Failed to send pcap msg to MP");
  }
}

}  // namespace IdsEvtEng
