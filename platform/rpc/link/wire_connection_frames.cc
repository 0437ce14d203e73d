#include <algorithm>
#include <optional>
#include <utility>

#include "platform/core/lib_log.h"
#include "platform/rpc/link/wire_connection.h"
#include "platform/rpc/wire/wire.pb.h"

// What is received.  A frame that the protocol does not allow ends the connection; one that speaks of a
// channel or call that has ended here is late and is dropped.

namespace zem::rpc {
namespace {

constexpr size_t kIdLength = 255;

template <class Ids>
bool IdsAreSound(const Ids& ids) {
  return ids.size() <= kIdsLimit && std::all_of(ids.begin(), ids.end(), [](const std::string& id) {
           return !id.empty() && id.size() <= kIdLength;
         });
}

}  // namespace

void WireConnection::Malformed(const char* what, const FrameHeader& header) {
  ZEM_LIB_LOG(Library::kRpc, kLogWarning,
              "%s: %s (type %u, flags %u, channel %u, call %u, %u bytes), closing", text().c_str(), what,
              static_cast<unsigned>(header.type), header.flags, header.channel, header.call, header.length);
  CloseNow(CloseReason::kProtocolError);
}

void WireConnection::HandleFrame(const FrameHeader& header, const char* payload) {
  if ((phase_ == Phase::kIntroducing) != (header.type == FrameType::kHello)) {
    return Malformed("HELLO has to come first, and once", header);
  }
  switch (header.type) {
    case FrameType::kHello:
      return HandleHello(header, payload);
    case FrameType::kIds:
      return HandleIds(header, payload);
    case FrameType::kPing: {
      Lock lock(mutex());
      AppendControl(FrameType::kPong, 0, 0, 0);
      return SendAppended(lock);
    }
    case FrameType::kPong:
      return;
    case FrameType::kOpen:
      return HandleOpen(header, payload);
    default:
      break;
  }
  Slot slot;
  bool existed = true;
  {
    Lock lock(mutex());
    if (const auto found = slots_.find(header.channel); found != slots_.end()) {
      slot = found->second;
    } else {
      const bool ours = (header.channel % 2 == 1) == settings_.initiator;
      existed = ours ? header.channel < next_channel_ : header.channel <= last_peer_channel_;
    }
  }
  if (!existed) return Malformed("a channel that was never opened", header);
  if (slot.forwarded) return Forward(*slot.forwarded, header, payload);
  if (!slot.client && !slot.server) return;
  switch (header.type) {
    case FrameType::kOpened:
      if (!slot.client || !slot.client->ReceiveOpened(header.code)) Malformed("OPENED without OPEN", header);
      return;
    case FrameType::kClose:
      return HandleClose(slot, header);
    case FrameType::kCall:
      return HandleCall(slot, header, payload);
    case FrameType::kMessage:
      return HandleMessage(slot, header, payload);
    case FrameType::kEnd:
      return HandleEnd(slot, header, payload);
    case FrameType::kCancel:
      if (!slot.server) return Malformed("CANCEL from the serving side", header);
      return slot.server->ReceiveCancel(header.call);
    default:
      return;
  }
}

void WireConnection::HandleHello(const FrameHeader& header, const char* payload) {
  wire::HelloMsg hello;
  if (!hello.ParseFromArray(payload, static_cast<int>(header.length)) || hello.magic() != kMagic) {
    return Malformed("not a HELLO of this protocol", header);
  }
  if (hello.version() != kVersion) return Malformed("HELLO of another version", header);
  if (!IdsAreSound(hello.ids())) return Malformed("HELLO with unsound ids", header);
  {
    Lock lock(mutex());
    if (closing_) return;
    peer_ids_.assign(hello.ids().begin(), hello.ids().end());
    phase_ = Phase::kUp;
    introduced_ = true;
    timer_due_ = TimePoint::max();
    ArmTimer();
  }
  ZEM_LIB_LOG(Library::kNet, kLogInfo, "%s: up, %d peer ids", text().c_str(), hello.ids_size());
  if (settings_.on_up) settings_.on_up(*this);
}

void WireConnection::HandleIds(const FrameHeader& header, const char* payload) {
  wire::IdsMsg ids;
  if (!ids.ParseFromArray(payload, static_cast<int>(header.length)) || !IdsAreSound(ids.added()) ||
      !IdsAreSound(ids.removed())) {
    return Malformed("IDS with unsound ids", header);
  }
  const std::vector<std::string> added(ids.added().begin(), ids.added().end());
  const std::vector<std::string> removed(ids.removed().begin(), ids.removed().end());
  bool too_many = false;
  {
    Lock lock(mutex());
    for (const std::string& id : removed) {
      peer_ids_.erase(std::remove(peer_ids_.begin(), peer_ids_.end(), id), peer_ids_.end());
    }
    for (const std::string& id : added) {
      if (std::find(peer_ids_.begin(), peer_ids_.end(), id) == peer_ids_.end()) peer_ids_.push_back(id);
    }
    too_many = peer_ids_.size() > static_cast<size_t>(kIdsLimit);
  }
  if (too_many) return Malformed("too many ids", header);
  if (owner_ != nullptr) owner_->PeerIdsChanged(*this, added, removed);
  DropForwardedTo(removed);
}

void WireConnection::HandleOpen(const FrameHeader& header, const char* payload) {
  wire::OpenMsg open;
  const bool peers = (header.channel % 2 == 1) != settings_.initiator;
  if (!peers || header.channel <= last_peer_channel_)
    return Malformed("OPEN with a channel id out of order", header);
  if (!open.ParseFromArray(payload, static_cast<int>(header.length)) || open.source().size() > kIdLength ||
      open.target().size() > kIdLength || open.service().size() > kIdLength) {
    return Malformed("unsound OPEN", header);
  }
  {
    Lock lock(mutex());
    last_peer_channel_ = header.channel;
  }
  if (owner_ == nullptr) return;
  auto channel = std::make_shared<ServerChannel>(Self(), header.channel, open.source(), open.target());
  StatusCode code =
      owner_->FindService(*this, open.target(), open.service(), open.fingerprint(), channel.get());
  if (code == StatusCode::kUnavailable && ForwardOpen(header, &open)) return;
  Lock lock(mutex());
  if (code == StatusCode::kOk && slots_.size() >= kChannelsLimit) code = StatusCode::kResourceExhausted;
  ZEM_LIB_LOG(Library::kRpc, kLogDebug, "%s: OPEN %s from %s to %s: %d", text().c_str(),
              open.service().c_str(), open.source().c_str(), open.target().c_str(), static_cast<int>(code));
  if (code == StatusCode::kOk) slots_[header.channel].server = std::move(channel);
  AppendControl(FrameType::kOpened, header.channel, 0, static_cast<uint16_t>(code));
  SendAppended(lock);
}

void WireConnection::HandleClose(const Slot& slot, const FrameHeader& header) {
  if (slot.client) {
    const bool known = header.code == static_cast<uint16_t>(CloseReason::kTargetUnreachable);
    slot.client->ReceiveClose(known ? CloseReason::kTargetUnreachable : CloseReason::kRemoteClose);
  } else {
    ServerChannel::Remains remains;
    Lock lock(mutex());
    if (slots_.erase(header.channel) > 0) remains = slot.server->End("the client closed the channel");
  }
  DeliverEnds();
}

void WireConnection::HandleCall(const Slot& slot, const FrameHeader& header, const char* payload) {
  size_t at = 4;
  std::optional<wire::CallHeadersMsg> headers;  // most calls have none
  bool sound = header.length >= at;
  if (sound && (header.flags & kFlagHeaders) != 0) {
    headers.emplace();
    sound = header.length >= at + 4;
    const size_t size = sound ? GetU32(payload + at) : 0;
    at += 4;
    sound = sound && size <= kHeadersLimit && size <= header.length - at &&
            headers->ParseFromArray(payload + at, static_cast<int>(size));
    at += size;
  }
  const bool empty = (header.flags & kFlagNoMessage) != 0;
  if (!sound || (empty && at != header.length)) return Malformed("unsound CALL", header);

  ReceivedCall call;
  call.id = header.call;
  call.method = header.code;
  call.deadline_ms = GetU32(payload);
  call.data = empty ? nullptr : payload + at;
  call.size = header.length - at;
  call.last = (header.flags & kFlagLast) != 0;
  if (headers) {
    call.source_id = std::move(*headers->mutable_source_id());
    for (auto& entry : *headers->mutable_headers()) {
      call.headers.emplace_back(std::move(*entry.mutable_key()), std::move(*entry.mutable_value()));
    }
  }
  if (!slot.server || !slot.server->ReceiveCall(std::move(call))) Malformed("CALL out of order", header);
}

void WireConnection::HandleMessage(const Slot& slot, const FrameHeader& header, const char* payload) {
  const bool empty = (header.flags & kFlagNoMessage) != 0;
  if (empty && header.length > 0) return Malformed("unsound MESSAGE", header);
  const char* const data = empty ? nullptr : payload;
  if (slot.server) {
    slot.server->ReceiveMessage(header.call, data, header.length, (header.flags & kFlagLast) != 0);
  } else if (data != nullptr) {
    slot.client->ReceiveMessage(header.call, data, header.length);
  }
}

void WireConnection::HandleEnd(const Slot& slot, const FrameHeader& header, const char* payload) {
  size_t at = 0;
  std::string text;
  bool sound = true;
  if ((header.flags & kFlagText) != 0) {
    sound = header.length >= 2 && GetU16(payload) <= header.length - 2;
    if (sound) {
      text.assign(payload + 2, GetU16(payload));
      at = 2 + text.size();
    }
  }
  const bool empty = (header.flags & kFlagNoMessage) != 0;
  if (!sound || (empty && at != header.length)) return Malformed("unsound END", header);
  if (!slot.client) return Malformed("END from the calling side", header);
  slot.client->ReceiveFinal(header.call, Status(header.code, std::move(text)), empty ? nullptr : payload + at,
                            header.length - at);
}

}  // namespace zem::rpc
