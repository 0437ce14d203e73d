#include "platform/rpc/link/wire_connection.h"

#include <algorithm>
#include <utility>

#include "platform/core/lib_log.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/wire/wire.pb.h"

// How a connection begins, reads, and ends.

namespace zem::rpc {

WireConnection::WireConnection(ConnectionOwner& owner, std::shared_ptr<ByteStream> stream,
                               std::shared_ptr<Strand> strand, Settings settings)
    : CallHost(std::move(stream), std::move(strand)),
      owner_(&owner),
      settings_(std::move(settings)),
      next_channel_(settings_.initiator ? 1 : 2),
      last_received_(last_sent()) {
  // Appended here and now, so that nothing can come before it.
  using std::chrono::milliseconds;
  wire::HelloMsg hello;
  hello.set_magic(kMagic);
  hello.set_version(kVersion);
  for (const std::string& id : settings_.announced) hello.add_ids(id);
  hello.set_inbound(settings_.options.rpc.inbound);
  hello.set_forward(settings_.options.rpc.forward);
  hello.set_heartbeat_idle_ms(static_cast<uint32_t>(settings_.options.heartbeat_idle / milliseconds(1)));
  hello.set_heartbeat_dead_ms(static_cast<uint32_t>(settings_.options.heartbeat_dead / milliseconds(1)));
  hello.set_frame_limit(kDataLimit);
  FrameHeader header;
  header.type = FrameType::kHello;
  AppendMessage(header, {}, &hello);
}

WireConnection::~WireConnection() = default;

std::shared_ptr<WireConnection> WireConnection::Self() {
  return std::static_pointer_cast<WireConnection>(shared_from_this());
}

void WireConnection::Begin() {
  strand()->Dispatch([self = Self()] {
    {
      Lock lock(self->mutex());
      if (self->phase_ == Phase::kClosed) return;
      self->ArmTimer();
      self->SendAppended(lock);
    }
    self->ReadMore();
  });
}

void WireConnection::Close(CloseReason reason) {
  Lock lock(mutex());
  CloseSoon(reason);
}

void WireConnection::CloseSoon(CloseReason reason) {
  if (phase_ == Phase::kClosed || std::exchange(closing_, true)) return;
  strand()->Post([self = Self(), reason] { self->CloseWhenWritten(reason); });
}

// Another thread may be writing to the socket right now; the close must not cut off what was appended before
// it.
void WireConnection::CloseWhenWritten(CloseReason reason) {
  {
    Lock lock(mutex());
    if (in_write()) {
      strand()->Post([self = Self(), reason] { self->CloseWhenWritten(reason); });
      return;
    }
  }
  CloseNow(reason);
}

void WireConnection::CloseNow(CloseReason reason) {
  std::vector<std::shared_ptr<Forwarded>> forwarded;
  std::vector<ServerChannel::Remains> remains;
  std::map<uint32_t, Slot> slots;  // destroyed after the lock
  std::shared_ptr<ByteStream> stream;
  std::vector<std::weak_ptr<WireConnection>> waiting_forwarders;
  bool introduced = false;
  {
    Lock lock(mutex());
    if (phase_ == Phase::kClosed) return;
    // Frames that were appended before the end still go out, if they can.
    if (reason == CloseReason::kLocalClose || reason == CloseReason::kProtocolError) Flush(lock);
    phase_ = Phase::kClosed;
    introduced = introduced_;
    stream = EndSending();
    if (timer_) timer_->Cancel();
    ++arming_;
    const CloseReason channel_reason =
        reason == CloseReason::kLocalClose ? CloseReason::kLocalClose : CloseReason::kConnectionLost;
    slots.swap(slots_);
    for (auto& [id, slot] : slots) {
      if (slot.client) slot.client->End(channel_reason);
      if (slot.server) remains.push_back(slot.server->End("the connection ended"));
      if (slot.forwarded) forwarded.push_back(slot.forwarded);
    }
    waiting_forwarders.swap(refused_forwarders_);
  }
  ZEM_LIB_LOG(Library::kNet, kLogInfo, "%s: closed, %s", text().c_str(), CloseReasonToCStr(reason));
  stream->Close();
  DeliverEnds();
  for (const auto& entry : forwarded) {
    if (const auto peer = entry->peer.lock()) {
      peer->DropForwarded(entry->channel, entry->towards_target ? CloseReason::kTargetUnreachable
                                                                : CloseReason::kRemoteClose);
    }
  }
  for (const auto& waiting : waiting_forwarders) {
    if (const auto peer = waiting.lock()) peer->ResumeReading();
  }
  if (settings_.on_down) settings_.on_down(*this, reason, introduced);
}

void WireConnection::DetachLoop() {
  CloseNow(CloseReason::kLocalClose);
  // What the callbacks of one round start, the next one ends; a caller that starts anew for ever is left
  // without an answer at last.
  for (int round = 0; round < 16; ++round) DeliverEnds();
  strand()->Detach();
  Lock lock(mutex());
  owner_ = nullptr;
  timer_.reset();
}

ConnectionInfo WireConnection::info() const {
  Lock lock(mutex());
  return {text(), peer_ids_};
}

bool WireConnection::unused() const {
  Lock lock(mutex());
  return slots_.empty();
}

void WireConnection::OpenChannel(const std::string& source, const std::string& target,
                                 const ServiceInfo& service, ClientChannel::OpenDone done) {
  const auto channel = std::make_shared<ClientChannel>(Self(), source, target, std::move(done));
  wire::OpenMsg open;
  open.set_source(source);
  open.set_target(target);
  open.set_service(service.name);
  open.set_fingerprint(service.fingerprint);
  Lock lock(mutex());
  if (phase_ != Phase::kUp || closing_ || slots_.size() >= kChannelsLimit) {
    channel->Refuse(CloseReason::kConnectionLost,
                    Status(StatusCode::kUnavailable, "the connection is not up"));
    return;
  }
  FrameHeader header;
  header.type = FrameType::kOpen;
  header.channel = next_channel_;
  next_channel_ += 2;
  channel->SetId(header.channel);
  slots_[header.channel].client = channel;
  AppendMessage(header, {}, &open);
  SendAppended(lock);
}

void WireConnection::CloseServerChannels(const ServerParts* server, bool close_connection) {
  std::vector<Slot> slots;  // destroyed after the lock
  std::vector<ServerChannel::Remains> remains;
  Lock lock(mutex());
  for (auto at = slots_.begin(); at != slots_.end();) {
    if (!at->second.server || !at->second.server->belongs_to(server)) {
      ++at;
      continue;
    }
    const uint32_t id = at->first;
    slots.push_back(std::move(at->second));
    at = slots_.erase(at);
    remains.push_back(slots.back().server->End("the server stopped"));
    AppendControl(FrameType::kClose, id, 0, static_cast<uint16_t>(CloseReason::kRemoteClose));
  }
  if (close_connection) CloseSoon(CloseReason::kLocalClose);
  SendAppended(lock);
}

void WireConnection::AnnounceIds(const std::vector<std::string>& added,
                                 const std::vector<std::string>& removed) {
  wire::IdsMsg ids;
  for (const std::string& id : added) ids.add_added(id);
  for (const std::string& id : removed) ids.add_removed(id);
  Lock lock(mutex());
  if (phase_ == Phase::kClosed) return;
  FrameHeader header;
  header.type = FrameType::kIds;
  AppendMessage(header, {}, &ids);
  SendAppended(lock);
}

void WireConnection::ReadMore() {
  std::shared_ptr<ByteStream> reading;
  {
    Lock lock(mutex());
    if (phase_ == Phase::kClosed || reading_) return;
    reading_ = true;
    reading = stream();
  }
  char* const space = receive_.space();
  reading->Read(space, receive_.space_size(), Self());
}

void WireConnection::OnRead(size_t size) {
  {
    Lock lock(mutex());
    if (phase_ == Phase::kClosed) return;
    reading_ = false;
    last_received_ = Clock::Process().Now();
  }
  if (size == 0) {
    CloseNow(CloseReason::kConnectionLost);
    return;
  }
  receive_.Commit(size);
  HandleReceived();
}

void WireConnection::HandleReceived() {
  if (phase_ == Phase::kClosed) return;  // written on this strand only
  FrameHeader header;
  const char* payload = nullptr;
  ReceiveBuffer::Result result;
  for (;;) {
    if (PauseForUnsent()) return;
    result = receive_.Next(&header, &payload);
    if (result != ReceiveBuffer::Result::kFrame) break;
    try {
      HandleFrame(header, payload);
    } catch (const std::exception& error) {
      LogThrown(error);
    }
    if (phase_ == Phase::kClosed) return;
  }
  if (result == ReceiveBuffer::Result::kBad) {
    Malformed(receive_.error(), header);
    return;
  }
  if (reading_paused_) return;
  ReadMore();
}

// A peer that asks and does not read the answers must not take this process's memory.
bool WireConnection::PauseForUnsent() {
  if (!over_limit()) return false;
  Lock lock(mutex());
  if (!FlushOverLimit(lock)) return false;
  paused_for_unsent_ = true;
  return true;
}

void WireConnection::SendingBroke() {
  if (!reading_) CloseSoon(CloseReason::kConnectionLost);
}

void WireConnection::RoomAgain() {
  for (const auto& weak : std::exchange(refused_forwarders_, {})) {
    if (const auto peer = weak.lock()) peer->ResumeReading();
  }
  if (std::exchange(paused_for_unsent_, false)) {
    strand()->Post([self = Self()] { self->HandleReceived(); });
  }
}

void WireConnection::ChannelsEnded() {
  if (owner_ != nullptr && settings_.on_channels_ended) settings_.on_channels_ended(*this);
}

// One wake-up for whatever comes first: introduction, heartbeat, the earliest deadline.
void WireConnection::ArmTimer() {
  if (phase_ == Phase::kClosed || owner_ == nullptr) return;
  TimePoint due = first_deadline();
  if (phase_ == Phase::kIntroducing) {
    due = std::min(due, settings_.introduction_deadline);
  } else {
    due = std::min(due, last_sent() + settings_.options.heartbeat_idle);
    due = std::min(due, last_received_ + settings_.options.heartbeat_dead);
  }
  if (due >= timer_due_) return;
  if (timer_) timer_->Cancel();
  timer_due_ = due;
  timer_ = owner_->provider().timers().Schedule(
      due - Clock::Process().Now(), [weak = std::weak_ptr<WireConnection>(Self()), arming = ++arming_] {
        if (const auto self = weak.lock()) self->OnTimer(arming);
      });
}

void WireConnection::OnTimer(uint64_t arming) {
  std::vector<std::shared_ptr<CallState>> expired;
  Lock lock(mutex());
  if (arming != arming_ || phase_ == Phase::kClosed) return;
  timer_due_ = TimePoint::max();
  const TimePoint now = Clock::Process().Now();
  expired = ExpireCalls(now);
  if (phase_ == Phase::kIntroducing) {
    if (now >= settings_.introduction_deadline) CloseSoon(CloseReason::kConnectionLost);
  } else {
    if (paused_for_unsent_ && now >= last_taken() + settings_.options.heartbeat_dead) {
      // Nothing is read from the peer, so its silence means nothing; that it takes nothing does.
      ZEM_LIB_LOG(Library::kNet, kLogWarning, "%s: the peer does not read, giving it up", text().c_str());
      CloseSoon(CloseReason::kConnectionLost);
    } else if (!reading_) {
      last_received_ = now;  // a callback of ours holds the strand: the silence is not the peer's
    } else if (now >= last_received_ + settings_.options.heartbeat_dead) {
      CloseSoon(CloseReason::kHeartbeatTimeout);
    }
    if (now >= last_sent() + settings_.options.heartbeat_idle) SendPing(lock);
  }
  if (!closing_) ArmTimer();
}

}  // namespace zem::rpc
