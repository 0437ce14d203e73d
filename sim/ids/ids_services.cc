#include "sim/ids/ids_services.h"

#include <google/protobuf/util/json_util.h>

#include <algorithm>
#include <optional>

#include "proto/context/ids.pb.h"
#include "proto/context/ids_pcap_vertical.pb.h"
#include "proto/context/ids_vertical.pb.h"
#include "sim/ids/ids_ledger.h"
#include "sim/manager/manager.h"

namespace zem::sim {
namespace {

using orlane::zem::context::ids::EventInfoMsg;
using orlane::zem::context::ids::IdsMpUnifiedMsg;
using orlane::zem::context::ids::IdsPcapMpUnifiedMsg;
using orlane::zem::context::ids::PcapInfoMsg;

constexpr const char* kEventVertical = "ZEM-IntrusionServices";
constexpr const char* kPcapVertical = "ZEM-IdsPcapService";
constexpr const char* kEventType = "com.orlane.zem.context.ids.EventInfoMsg";
constexpr const char* kPcapType = "orlane.zem.context.ids.PcapInfoMsg";
constexpr size_t kEntriesKept = 200;

// The message inside; false when the bytes are none, or of another type.
template <class Unified, class Inner>
bool Decode(const PeerMessage& message, const char* type, Inner* inner) {
  Unified unified;
  return message.publish && unified.ParseFromString(message.payload) && unified.type() == type &&
         inner->ParseFromString(unified.raw_payload().payload());
}

}  // namespace

IdsServices::IdsServices(Manager& manager, IdsLedger& ledger) : manager_(manager), ledger_(ledger) {
  manager_.SetPeer(kEventVertical, [this](const PeerMessage& message) {
    TakeEvents(message);
    return std::optional<std::string>();
  });
  manager_.SetPeer(kPcapVertical, [this](const PeerMessage& message) {
    TakePcaps(message);
    return std::optional<std::string>();
  });
}

IdsServices::~IdsServices() {
  manager_.SetPeer(kEventVertical, {});
  manager_.SetPeer(kPcapVertical, {});
}

void IdsServices::TakeEvents(const PeerMessage& message) {
  EventInfoMsg events;
  if (!Decode<IdsMpUnifiedMsg>(message, kEventType, &events))
    return ledger_.TakeGarbage("what the manager got is no publish of alerts");
  ledger_.Take(events);
  const std::lock_guard lock(mutex_);
  for (const auto& info : events.event_info()) {
    std::string text;
    static_cast<void>(google::protobuf::util::MessageToJsonString(info, &text));
    newest_.push_front(std::move(text));
    if (newest_.size() > kEntriesKept) newest_.pop_back();
  }
}

void IdsServices::TakePcaps(const PeerMessage& message) {
  PcapInfoMsg pcaps;
  if (!Decode<IdsPcapMpUnifiedMsg>(message, kPcapType, &pcaps))
    return ledger_.TakeGarbage("what the manager got is no publish of captures");
  ledger_.Take(pcaps);
}

std::vector<std::string> IdsServices::Newest(size_t most) const {
  const std::lock_guard lock(mutex_);
  const size_t count = std::min(most, newest_.size());
  return {newest_.begin(), newest_.begin() + static_cast<ptrdiff_t>(count)};
}

}  // namespace zem::sim
