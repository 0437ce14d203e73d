#include <algorithm>
#include <optional>
#include <utility>

#include "platform/core/lib_log.h"
#include "platform/rpc/server.h"
#include "platform/rpc/transport_impl.h"
#include "platform/rpc/wire.pb.h"
#include "platform/rpc/wire_connection.h"

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
              "%s: %s (type %u, flags %u, channel %u, call %u, %u bytes), closing", text_.c_str(), what,
              static_cast<unsigned>(header.type), header.flags, header.channel, header.call, header.length);
  CloseNow(CloseReason::kProtocolError);
}

void WireConnection::LogThrown(const std::exception& error) const {
  ZEM_LIB_LOG(Library::kRpc, kLogError, "%s: a callback threw: %s", text_.c_str(), error.what());
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
      Lock lock(mutex_);
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
    Lock lock(mutex_);
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
      return HandleOpened(slot, header);
    case FrameType::kClose:
      return HandleClose(slot, header);
    case FrameType::kCall:
      return HandleCall(slot, header, payload);
    case FrameType::kMessage:
      return HandleMessage(slot, header, payload);
    case FrameType::kEnd:
      return HandleEnd(slot, header, payload);
    case FrameType::kCancel:
      return HandleCancel(slot, header);
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
    Lock lock(mutex_);
    if (closing_) return;
    peer_ids_.assign(hello.ids().begin(), hello.ids().end());
    phase_ = Phase::kUp;
    introduced_ = true;
    timer_due_ = TimePoint::max();
    ArmTimer();
  }
  ZEM_LIB_LOG(Library::kNet, kLogInfo, "%s: up, %d peer ids", text_.c_str(), hello.ids_size());
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
  std::vector<std::pair<uint32_t, std::shared_ptr<Forwarded>>> gone;
  bool too_many = false;
  {
    Lock lock(mutex_);
    for (const std::string& id : removed) {
      peer_ids_.erase(std::remove(peer_ids_.begin(), peer_ids_.end(), id), peer_ids_.end());
      for (const auto& [channel, slot] : slots_) {
        if (slot.forwarded && slot.forwarded->towards_target && slot.forwarded->target == id) {
          gone.emplace_back(channel, slot.forwarded);
        }
      }
    }
    for (const std::string& id : added) {
      if (std::find(peer_ids_.begin(), peer_ids_.end(), id) == peer_ids_.end()) peer_ids_.push_back(id);
    }
    too_many = peer_ids_.size() > static_cast<size_t>(kIdsLimit);
  }
  if (too_many) return Malformed("too many ids", header);
  if (transport_ != nullptr) transport_->PeerIdsChanged(*this, added, removed);
  for (const auto& [channel, forwarded] : gone) {
    DropForwarded(channel, CloseReason::kRemoteClose);
    if (const auto peer = forwarded->peer.lock()) {
      peer->DropForwarded(forwarded->channel, CloseReason::kTargetUnreachable);
    }
  }
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
    Lock lock(mutex_);
    last_peer_channel_ = header.channel;
  }
  if (transport_ == nullptr) return;
  auto channel = std::make_shared<ServerChannel>(shared_from_this(), open.source(), open.target());
  channel->id = header.channel;
  StatusCode code =
      transport_->FindService(*this, open.target(), open.service(), open.fingerprint(), channel.get());
  if (code == StatusCode::kUnavailable && ForwardOpen(header, &open)) return;
  Lock lock(mutex_);
  if (code == StatusCode::kOk && slots_.size() >= kChannelsLimit) code = StatusCode::kResourceExhausted;
  ZEM_LIB_LOG(Library::kRpc, kLogDebug, "%s: OPEN %s from %s to %s: %d", text_.c_str(),
              open.service().c_str(), open.source().c_str(), open.target().c_str(), static_cast<int>(code));
  if (code == StatusCode::kOk) slots_[header.channel].server = std::move(channel);
  AppendControl(FrameType::kOpened, header.channel, 0, static_cast<uint16_t>(code));
  SendAppended(lock);
}

bool WireConnection::ForwardOpen(const FrameHeader& header, wire::OpenMsg* open) {
  const std::shared_ptr<WireConnection> peer = transport_->RouteForwarded(*this, open->mutable_target());
  if (!peer) return false;
  const uint32_t channel = peer->ReserveForwarded(shared_from_this(), header.channel, open->target());
  if (channel == 0) return false;
  {
    Lock lock(mutex_);
    if (slots_.size() >= kChannelsLimit) {
      lock.unlock();
      peer->DropForwarded(channel, CloseReason::kNone);
      return false;
    }
    auto entry = std::make_shared<Forwarded>();
    entry->peer = peer;
    entry->channel = channel;
    entry->target = open->target();
    slots_[header.channel].forwarded = std::move(entry);
  }
  const std::string payload = open->SerializeAsString();
  FrameHeader onward = header;
  onward.channel = channel;
  onward.length = static_cast<uint32_t>(payload.size());
  peer->SendForwarded(onward, payload.data());
  return true;
}

void WireConnection::Forward(const Forwarded& forwarded, const FrameHeader& header, const char* payload) {
  const std::shared_ptr<WireConnection> peer = forwarded.peer.lock();
  if (!peer) {
    DropForwarded(header.channel, CloseReason::kTargetUnreachable);
    return;
  }
  FrameHeader copy = header;
  copy.channel = forwarded.channel;
  const bool room = peer->SendForwarded(copy, payload);
  const bool refused = header.type == FrameType::kOpened && header.code != 0;
  if (refused || header.type == FrameType::kClose) {
    DropForwarded(header.channel, CloseReason::kNone);
    peer->DropForwarded(forwarded.channel, CloseReason::kNone);
  }
  if (!room) {
    reading_paused_ = true;
    peer->ResumeWhenSent(shared_from_this());
  }
}

void WireConnection::HandleOpened(const Slot& slot, const FrameHeader& header) {
  ClientChannel::OpenDone done;
  bool expected = false;
  if (slot.client) {
    ClientChannel& channel = *slot.client;
    Lock lock(mutex_);
    expected = channel.state_ != ClientChannel::State::kOpen;
    if (channel.state_ == ClientChannel::State::kOpening && header.code == 0) {
      channel.state_ = ClientChannel::State::kOpen;
      done.swap(channel.open_done_);
    } else if (channel.state_ == ClientChannel::State::kOpening) {
      channel.state_ = ClientChannel::State::kDown;
      channel.down_reason_ = CloseReason::kTargetUnreachable;
      slots_.erase(header.channel);
      ended_.push_back({nullptr, nullptr, slot.client, Status(header.code, "the peer refused the channel")});
      PostEnded();
    }
  }
  if (!expected) return Malformed("OPENED without OPEN", header);
  if (done) done(slot.client, Status());
}

void WireConnection::HandleClose(const Slot& slot, const FrameHeader& header) {
  std::vector<std::shared_ptr<ServerCall>> taken;
  std::shared_ptr<ServiceBase> service;
  {
    Lock lock(mutex_);
    if (slots_.count(header.channel) == 0) return;
    if (slot.client) {
      const bool known = header.code == static_cast<uint16_t>(CloseReason::kTargetUnreachable);
      EndClientChannel(*slot.client, known ? CloseReason::kTargetUnreachable : CloseReason::kRemoteClose);
    } else {
      slots_.erase(header.channel);
      service = std::move(slot.server->service);
      for (const auto& call : slot.server->calls.TakeAll()) {
        --calls_;
        taken.push_back(
            EndServerCall(*call, Status(StatusCode::kChannelDown, "the client closed the channel")));
        taken.push_back(call);
      }
    }
  }
  TellEnded();
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

  const std::shared_ptr<ServerChannel>& channel = slot.server;
  std::shared_ptr<ServiceBase> service;
  std::shared_ptr<ServerCall> call;
  {
    Lock lock(mutex_);
    if (channel && slots_.count(header.channel) == 0) return;
    if (channel && header.call > channel->last_call) {
      channel->last_call = header.call;
      service = channel->service;
      call = std::make_shared<ServerCall>(channel, header.call);
      if (calls_ >= kCallsLimit) {
        AppendEnd(header.channel, header.call, Status(StatusCode::kResourceExhausted, "too many calls"));
        return SendAppended(lock);
      }
      if (headers) {
        call->source_id_ = std::move(*headers->mutable_source_id());
        for (auto& entry : *headers->mutable_headers()) {
          call->headers_.emplace_back(std::move(*entry.mutable_key()), std::move(*entry.mutable_value()));
        }
      }
      call->dispatching_ = true;
      channel->calls.Insert(header.call, call);
      ++calls_;
      if (const uint32_t deadline_ms = GetU32(payload); deadline_ms > 0) {
        call->deadline_ = Clock::Process().Now() + std::chrono::milliseconds(deadline_ms);
        deadlines_.Insert(*call);
        ArmTimer();
      }
    }
  }
  if (!call) return Malformed("CALL out of order", header);
  const char* const data = empty ? nullptr : payload + at;
  try {
    service->Dispatch(header.code, call, data, header.length - at, (header.flags & kFlagLast) != 0);
  } catch (const std::exception& error) {
    ZEM_LIB_LOG(Library::kRpc, kLogError, "%s: method %u of %s threw: %s", text_.c_str(), header.code,
                service->info().name, error.what());
    call->Close(Status(StatusCode::kInternal, error.what()));
  }
  if (call->ended_) return;
  std::shared_ptr<ServerCall> taken;
  Lock lock(mutex_);
  call->dispatching_ = false;
  if (call->forgotten_ && !call->ended_) {
    taken = EndServerCall(*call, Status(StatusCode::kCancelled, "dropped without an answer"));
  }
}

void WireConnection::HandleMessage(const Slot& slot, const FrameHeader& header, const char* payload) {
  const bool empty = (header.flags & kFlagNoMessage) != 0;
  if (empty && header.length > 0) return Malformed("unsound MESSAGE", header);
  std::shared_ptr<ClientCall> call;
  std::shared_ptr<ServerCall> server_call;
  {
    Lock lock(mutex_);
    if (slot.client) {
      if (const auto* const found = slot.client->calls_.Find(header.call)) call = *found;
    } else if (const auto* const found = slot.server->calls.Find(header.call)) {
      server_call = *found;
    }
  }
  if (server_call) {
    try {
      server_call->ReceiveRequest(empty ? nullptr : payload, header.length, (header.flags & kFlagLast) != 0);
    } catch (const std::exception& error) {
      LogThrown(error);
      server_call->Close(Status(StatusCode::kInternal, error.what()));
    }
  } else if (call && !empty && !call->ReceiveMessage(payload, header.length)) {
    Lock lock(mutex_);
    if (call->ended_) return;
    AppendControl(FrameType::kCancel, header.channel, header.call, 0);
    EndClientCall(*call,
                  Status(StatusCode::kProtocolError, "the answer is not a message of the method's type"));
    SendAppended(lock);
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
  Status status(header.code, std::move(text));
  if (!slot.client) return Malformed("END from the calling side", header);
  std::shared_ptr<ClientCall> call;
  {
    Lock lock(mutex_);
    if (const auto* const found = slot.client->calls_.Find(header.call))
      call = TakeClientCall(**found, status);
  }
  if (!call) return;
  try {
    if (!empty && !call->ReceiveMessage(payload + at, header.length - at)) {
      status = Status(StatusCode::kProtocolError, "the answer is not a message of the method's type");
    }
    call->ReceiveRemoteStatus(status);
  } catch (const std::exception& error) {
    LogThrown(error);  // the call has ended all the same
  }
  call->ReceiveCallStatus(status);
}

void WireConnection::HandleCancel(const Slot& slot, const FrameHeader& header) {
  if (!slot.server) return Malformed("CANCEL from the serving side", header);
  std::shared_ptr<ServerCall> taken;
  Lock lock(mutex_);
  if (const auto* const found = slot.server->calls.Find(header.call)) {
    taken = EndServerCall(**found, Status(StatusCode::kCancelled));
  }
}

}  // namespace zem::rpc
