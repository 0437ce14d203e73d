#include "platform/rpc/wire_connection.h"

#include <google/protobuf/message_lite.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/core/lib_log.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/transport_impl.h"
#include "platform/rpc/wire.pb.h"

// The idea: whoever has something to say writes it, serialized, into one buffer under one mutex.  Whoever
// then finds nobody writing takes the whole buffer to the socket.  Inside callbacks that is done once, when
// they are through; from other threads at once when the line was quiet, else by the strand, so that a burst
// becomes one write.

namespace zem::rpc {
namespace {

// Within callbacks: what has gathered goes out early when it is this much.
constexpr size_t kGatherLimit = 64 << 10;
// Two direct writes of one thread closer than this are a burst.
constexpr Duration kBurst = std::chrono::microseconds(20);

}  // namespace

WireConnection::WireConnection(TransportImpl& transport, std::shared_ptr<ByteStream> stream,
                               std::shared_ptr<Strand> strand, Settings settings)
    : transport_(&transport),
      strand_(std::move(strand)),
      settings_(std::move(settings)),
      text_(stream->text()),
      stream_(std::move(stream)),
      next_channel_(settings_.initiator ? 1 : 2),
      last_sent_(Clock::Process().Now()),
      last_received_(last_sent_),
      last_taken_(last_sent_) {
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

void WireConnection::Begin() {
  strand_->Dispatch([self = shared_from_this()] {
    {
      Lock lock(self->mutex_);
      if (self->phase_ == Phase::kClosed) return;
      self->ArmTimer();
      self->SendAppended(lock);
    }
    self->ReadMore();
  });
}

void WireConnection::Close(CloseReason reason) {
  Lock lock(mutex_);
  CloseSoon(reason);
}

void WireConnection::CloseSoon(CloseReason reason) {
  if (phase_ == Phase::kClosed || std::exchange(closing_, true)) return;
  strand_->Post([self = shared_from_this(), reason] { self->CloseWhenWritten(reason); });
}

// Another thread may be taking bytes to the socket right now; what was said before the end shall not be cut
// off by it.
void WireConnection::CloseWhenWritten(CloseReason reason) {
  {
    Lock lock(mutex_);
    if (in_write_) {
      strand_->Post([self = shared_from_this(), reason] { self->CloseWhenWritten(reason); });
      return;
    }
  }
  CloseNow(reason);
}

void WireConnection::CloseNow(CloseReason reason) {
  std::vector<std::shared_ptr<Forwarded>> forwarded;
  std::vector<std::shared_ptr<ServerCall>> taken;
  std::vector<std::shared_ptr<ServiceBase>> services;
  std::map<uint32_t, Slot> slots;  // destroyed after the lock
  std::shared_ptr<ByteStream> stream;
  std::vector<std::weak_ptr<WireConnection>> waiting_forwarders;
  bool introduced = false;
  {
    Lock lock(mutex_);
    if (phase_ == Phase::kClosed) return;
    // What was said before the end still goes, if it can.
    if (reason == CloseReason::kLocalClose || reason == CloseReason::kProtocolError) Flush(lock);
    phase_ = Phase::kClosed;
    introduced = introduced_;
    stream.swap(stream_);
    if (timer_) timer_->Cancel();
    ++arming_;
    const CloseReason channel_reason =
        reason == CloseReason::kLocalClose ? CloseReason::kLocalClose : CloseReason::kConnectionLost;
    slots.swap(slots_);
    for (auto& [id, slot] : slots) {
      if (slot.client) EndClientChannel(*slot.client, channel_reason);
      if (slot.server) {
        services.push_back(std::move(slot.server->service));
        for (const auto& call : slot.server->calls.TakeAll()) {
          --calls_;
          taken.push_back(EndServerCall(*call, Status(StatusCode::kChannelDown, "the connection ended")));
          taken.push_back(call);
        }
      }
      if (slot.forwarded) forwarded.push_back(slot.forwarded);
    }
    batches_.clear();
    waiting_forwarders.swap(refused_forwarders_);
    DropUnsent();
  }
  ZEM_LIB_LOG(Library::kNet, kLogInfo, "%s: closed, %s", text_.c_str(), CloseReasonToCStr(reason));
  stream->Close();
  TellEnded();
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
  // What the callbacks of one round start, the next one ends; somebody who starts anew for ever is left at
  // last.
  for (int round = 0; round < 16; ++round) TellEnded();
  strand_->Detach();
  Lock lock(mutex_);
  transport_ = nullptr;
  timer_.reset();
}

ConnectionInfo WireConnection::info() const {
  Lock lock(mutex_);
  return {text_, peer_ids_};
}

bool WireConnection::up() const {
  Lock lock(mutex_);
  return phase_ == Phase::kUp && !closing_;
}

bool WireConnection::unused() const {
  Lock lock(mutex_);
  return slots_.empty();
}

void WireConnection::OpenChannel(const std::string& source, const std::string& target,
                                 const ServiceInfo& service, ClientChannel::OpenDone done) {
  auto channel = std::make_shared<ClientChannel>(shared_from_this(), source, target, service);
  wire::OpenMsg open;
  open.set_source(source);
  open.set_target(target);
  open.set_service(service.name);
  open.set_fingerprint(service.fingerprint);
  Lock lock(mutex_);
  channel->open_done_ = std::move(done);
  if (phase_ != Phase::kUp || closing_ || slots_.size() >= kChannelsLimit) {
    channel->state_ = ClientChannel::State::kDown;
    channel->down_reason_ = CloseReason::kConnectionLost;
    ended_.push_back(
        {nullptr, nullptr, channel, Status(StatusCode::kUnavailable, "the connection is not up")});
    PostEnded();
    return;
  }
  channel->id_ = next_channel_;
  next_channel_ += 2;
  slots_[channel->id_].client = channel;
  FrameHeader header;
  header.type = FrameType::kOpen;
  header.channel = channel->id_;
  AppendMessage(header, {}, &open);
  SendAppended(lock);
}

void WireConnection::CloseServerChannels(const ServerParts* server, bool close_connection) {
  std::vector<std::shared_ptr<ServerCall>> taken;
  std::vector<std::shared_ptr<ServerChannel>> channels;
  std::vector<std::shared_ptr<ServiceBase>> services;
  Lock lock(mutex_);
  for (auto at = slots_.begin(); at != slots_.end();) {
    const auto channel = at->second.server;
    if (!channel || channel->server != server) {
      ++at;
      continue;
    }
    at = slots_.erase(at);
    channels.push_back(channel);
    services.push_back(std::move(channel->service));
    for (const auto& call : channel->calls.TakeAll()) {
      --calls_;
      taken.push_back(EndServerCall(*call, Status(StatusCode::kChannelDown, "the server stopped")));
      taken.push_back(call);
    }
    AppendControl(FrameType::kClose, channel->id, 0, static_cast<uint16_t>(CloseReason::kRemoteClose));
  }
  if (close_connection) CloseSoon(CloseReason::kLocalClose);
  SendAppended(lock);
}

void WireConnection::AnnounceIds(const std::vector<std::string>& added,
                                 const std::vector<std::string>& removed) {
  wire::IdsMsg ids;
  for (const std::string& id : added) ids.add_added(id);
  for (const std::string& id : removed) ids.add_removed(id);
  Lock lock(mutex_);
  if (phase_ == Phase::kClosed) return;
  FrameHeader header;
  header.type = FrameType::kIds;
  AppendMessage(header, {}, &ids);
  SendAppended(lock);
}

uint32_t WireConnection::ReserveForwarded(const std::shared_ptr<WireConnection>& peer, uint32_t channel,
                                          const std::string& target) {
  Lock lock(mutex_);
  if (phase_ != Phase::kUp || closing_ || slots_.size() >= kChannelsLimit) return 0;
  const uint32_t id = next_channel_;
  next_channel_ += 2;
  auto entry = std::make_shared<Forwarded>();
  entry->peer = peer;
  entry->channel = channel;
  entry->target = target;
  entry->towards_target = true;
  slots_[id].forwarded = std::move(entry);
  return id;
}

bool WireConnection::SendForwarded(FrameHeader header, const char* payload) {
  Lock lock(mutex_);
  if (phase_ != Phase::kUp) return true;  // its end tells the other side
  char* const out = AppendFrame(header);
  if (header.length > 0) std::memcpy(out, payload, header.length);
  SendAppended(lock);
  return unsent() <= kUnsentLimit;
}

void WireConnection::DropForwarded(uint32_t channel, CloseReason reason) {
  Slot dropped;
  Lock lock(mutex_);
  const auto found = slots_.find(channel);
  if (found == slots_.end() || !found->second.forwarded) return;
  dropped = std::move(found->second);
  slots_.erase(found);
  if (reason == CloseReason::kNone) return;
  AppendControl(FrameType::kClose, channel, 0, static_cast<uint16_t>(reason));
  SendAppended(lock);
}

void WireConnection::ResumeReading() {
  strand_->Post([self = shared_from_this()] {
    if (std::exchange(self->reading_paused_, false)) self->HandleReceived();
  });
}

void WireConnection::ResumeWhenSent(const std::shared_ptr<WireConnection>& peer) {
  Lock lock(mutex_);
  if (phase_ != Phase::kUp || unsent() <= kUnsentResume) {
    peer->ResumeReading();
  } else {
    refused_forwarders_.push_back(peer);
  }
}

void WireConnection::ReadMore() {
  std::shared_ptr<ByteStream> stream;
  {
    Lock lock(mutex_);
    if (phase_ == Phase::kClosed || reading_) return;
    reading_ = true;
    stream = stream_;
  }
  char* const space = receive_.space();
  stream->Read(space, receive_.space_size(), shared_from_this());
}

void WireConnection::OnRead(size_t size) {
  {
    Lock lock(mutex_);
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
  if (!over_limit_.load(std::memory_order_relaxed)) return false;
  Lock lock(mutex_);
  Flush(lock);
  over_limit_ = unsent() > kUnsentLimit;
  if (!over_limit_) return false;
  paused_for_unsent_ = true;
  return true;
}

void WireConnection::OnWritable() {
  Lock lock(mutex_);
  if (phase_ == Phase::kClosed) return;
  flushing_ = false;
  Flush(lock);
}

char* WireConnection::AppendFrame(FrameHeader header) {
  if (given_up_ || phase_ == Phase::kClosed) DropUnsent();
  char* const out = pending_.Extend(kFrameHeaderSize + header.length);
  if (unsent() > kUnsentLimit) [[unlikely]]
    LimitUnsent();
  EncodeFrameHeader(header, out);
  return out + kFrameHeaderSize;
}

bool WireConnection::AppendMessage(FrameHeader header, std::string_view prefix,
                                   const google::protobuf::MessageLite* message) {
  const size_t body = message == nullptr ? 0 : message->ByteSizeLong();
  if (prefix.size() + body > kDataLimit) return false;
  header.length = static_cast<uint32_t>(prefix.size() + body);
  char* const out = AppendFrame(header);
  if (!prefix.empty()) std::memcpy(out, prefix.data(), prefix.size());
  if (message != nullptr)
    message->SerializeWithCachedSizesToArray(reinterpret_cast<uint8_t*>(out + prefix.size()));
  return true;
}

void WireConnection::AppendControl(FrameType type, uint32_t channel, uint32_t call, uint16_t code) {
  FrameHeader header;
  header.type = type;
  header.code = code;
  header.channel = channel;
  header.call = call;
  AppendFrame(header);
}

void WireConnection::AppendEnd(uint32_t channel, uint32_t call, const Status& status) {
  FrameHeader header;
  header.type = FrameType::kEnd;
  header.flags = kFlagNoMessage;
  header.channel = channel;
  header.call = call;
  std::string text = status.text();
  if (status.code() < 0 || status.code() > UINT16_MAX) {
    header.code = static_cast<uint16_t>(StatusCode::kInternal);
    text = "status " + std::to_string(status.code()) + " " + text;
  } else {
    header.code = static_cast<uint16_t>(status.code());
  }
  if (text.empty()) {
    AppendFrame(header);
    return;
  }
  text.resize(std::min<size_t>(text.size(), UINT16_MAX));
  header.flags |= kFlagText;
  header.length = static_cast<uint32_t>(2 + text.size());
  char* const out = AppendFrame(header);
  PutU16(out, static_cast<uint16_t>(text.size()));
  std::memcpy(out + 2, text.data(), text.size());
}

void WireConnection::LimitUnsent() {
  over_limit_ = true;
  if (unsent() <= kUnsentGiveUp || std::exchange(given_up_, true)) return;
  ZEM_LIB_LOG(Library::kNet, kLogWarning, "%s: the peer does not read, giving it up", text_.c_str());
  CloseSoon(CloseReason::kConnectionLost);
}

// What a thread is taking to the socket right now is dropped by that thread.
void WireConnection::DropUnsent() {
  pending_.Clear();
  if (!in_write_) active_.Clear();
}

void WireConnection::SendAppended(Lock& lock) {
  if (FlushScope* const scope = FlushScope::Current()) {
    if (pending_.size() >= kGatherLimit) {
      Flush(lock);
    } else if (!std::exchange(gathered_, true)) {
      scope->Add(shared_from_this());
    }
    return;
  }
  if (flushing_ || flush_posted_) return;
  const TimePoint now = Clock::Process().Now();
  if (now - last_direct_flush_ > kBurst) {
    last_direct_flush_ = now;
    Flush(lock);
    return;
  }
  flush_posted_ = true;
  strand_->Post([self = shared_from_this()] {
    Lock again(self->mutex_);
    self->flush_posted_ = false;
    self->Flush(again);
  });
}

void WireConnection::FlushGathered() {
  Lock lock(mutex_);
  gathered_ = false;
  Flush(lock);
}

void WireConnection::Flush(Lock& lock) {
  if (flushing_ || phase_ == Phase::kClosed) return;
  flushing_ = true;
  const std::shared_ptr<ByteStream> stream = stream_;
  bool sent = false;
  for (;;) {
    if (active_.empty()) {
      if (pending_.empty()) PumpBatches();
      if (pending_.empty()) break;
      std::swap(active_, pending_);
    }
    in_write_ = true;
    lock.unlock();
    const ssize_t size = stream->TryWrite(active_.data(), active_.size());
    lock.lock();
    in_write_ = false;
    if (size < 0 || given_up_ || phase_ == Phase::kClosed) {
      // The reader sees the same end, after what the peer said before it; heartbeats end it at the latest.
      DropUnsent();
      if (!reading_) CloseSoon(CloseReason::kConnectionLost);
      break;
    }
    sent = sent || size > 0;
    active_.Consume(static_cast<size_t>(size));
    if (active_.empty()) continue;
    if (sent) last_taken_ = last_sent_ = Clock::Process().Now();
    // Still flushing: the bytes wait for room.
    strand_->Post([self = shared_from_this(), stream] { stream->WaitWritable(self); });
    WakeWriters();
    return;
  }
  flushing_ = false;
  if (sent) last_taken_ = last_sent_ = Clock::Process().Now();
  WakeWriters();
}

void WireConnection::PumpBatches() {
  while (!batches_.empty() && unsent() < kBatchAhead) {
    const std::shared_ptr<ClientCall> call = batches_.front();
    if (!call->ended_ && call->next_request_ == nullptr) call->next_request_ = call->NextRequest();
    FrameHeader header;
    header.type = FrameType::kMessage;
    header.channel = call->channel_->id_;
    header.call = call->id_;
    const google::protobuf::MessageLite* const message = call->next_request_;
    if (!call->ended_) {
      call->next_request_ = message == nullptr ? nullptr : call->NextRequest();
      if (call->next_request_ == nullptr) header.flags |= kFlagLast;
      if (message == nullptr) header.flags |= kFlagNoMessage;
      if (!AppendMessage(header, {}, message)) {
        AppendControl(FrameType::kCancel, header.channel, header.call, 0);
        EndClientCall(*call,
                      Status(StatusCode::kResourceExhausted, "a request is over the limit of a frame"));
      }
    }
    if (call->ended_ || call->next_request_ == nullptr) batches_.erase(batches_.begin());
  }
}

void WireConnection::WakeWriters() {
  if (unsent() > kUnsentResume) return;
  if (!refused_writers_.empty()) {
    strand_->Post([writers = std::exchange(refused_writers_, {})] {
      for (const auto& weak : writers) {
        const auto call = weak.lock();
        if (!call) continue;
        std::function<void()> hook;
        {
          Lock lock(call->channel_->connection->mutex_);
          call->write_refused_ = false;
          if (!call->ended_) hook = call->on_writable_;
        }
        if (hook) hook();
      }
    });
  }
  for (const auto& weak : std::exchange(refused_forwarders_, {})) {
    if (const auto peer = weak.lock()) peer->ResumeReading();
  }
  if (std::exchange(paused_for_unsent_, false)) {
    strand_->Post([self = shared_from_this()] { self->HandleReceived(); });
  }
}

std::shared_ptr<ClientCall> WireConnection::TakeClientCall(ClientCall& call, const Status& status) {
  call.ended_ = true;
  call.final_status_ = status;
  deadlines_.Remove(call);
  auto taken = call.channel_->calls_.Take(call.id_);
  if (taken) --calls_;
  return taken;
}

void WireConnection::EndClientCall(ClientCall& call, Status status) {
  auto taken = TakeClientCall(call, status);
  ended_.push_back({std::move(taken), nullptr, nullptr, std::move(status)});
  PostEnded();
}

std::shared_ptr<ServerCall> WireConnection::EndServerCall(ServerCall& call, Status status) {
  call.ended_ = true;
  call.final_status_ = status;
  deadlines_.Remove(call);
  auto taken = call.channel_->calls.Take(call.id_);
  if (taken) --calls_;
  if (call.tell_end_) {
    ended_.push_back(
        {nullptr, std::static_pointer_cast<ServerCall>(call.shared_from_this()), nullptr, std::move(status)});
    PostEnded();
  }
  return taken;
}

void WireConnection::EndClientChannel(ClientChannel& channel, CloseReason reason) {
  channel.state_ = ClientChannel::State::kDown;
  channel.down_reason_ = reason;
  for (auto& call : channel.calls_.TakeAll()) {
    --calls_;
    call->ended_ = true;
    call->final_status_ = Status(StatusCode::kChannelDown, CloseReasonToCStr(reason));
    deadlines_.Remove(*call);
    ended_.push_back({call, nullptr, nullptr, *call->final_status_});
  }
  ended_.push_back({nullptr, nullptr, channel.shared_from_this(),
                    Status(StatusCode::kChannelDown, CloseReasonToCStr(reason))});
  slots_.erase(channel.id_);
  PostEnded();
}

void WireConnection::PostEnded() {
  if (std::exchange(ended_posted_, true)) return;
  strand_->Post([self = shared_from_this()] { self->TellEnded(); });
}

void WireConnection::TellEnded() {
  std::vector<Ended> ended;
  {
    Lock lock(mutex_);
    ended_posted_ = false;
    ended.swap(ended_);
  }
  bool channel_ended = false;
  for (Ended& entry : ended) {
    channel_ended = channel_ended || entry.channel;
    try {
      if (entry.client) entry.client->ReceiveCallStatus(entry.status);
      if (entry.server) entry.server->DeliverEnd();
      if (!entry.channel) continue;
      ClientChannel& channel = *entry.channel;
      std::function<void(CloseReason)> hook;
      ClientChannel::OpenDone open_done;
      {
        Lock lock(mutex_);
        hook.swap(channel.hook_);
        open_done.swap(channel.open_done_);
        if (hook) channel.hook_ran_ = true;
      }
      if (open_done) open_done(nullptr, entry.status);
      if (hook) hook(channel.down_reason_);
    } catch (const std::exception& error) {
      LogThrown(error);
    }
  }
  if (channel_ended && transport_ != nullptr) transport_->ConnectionMayBeUnused(*this);
}

// One wake-up for whatever comes first: introduction, heartbeat, the earliest deadline.
void WireConnection::ArmTimer() {
  if (phase_ == Phase::kClosed || transport_ == nullptr) return;
  TimePoint due = deadlines_.first();
  if (phase_ == Phase::kIntroducing) {
    due = std::min(due, settings_.introduction_deadline);
  } else {
    due = std::min(due, last_sent_ + settings_.options.heartbeat_idle);
    due = std::min(due, last_received_ + settings_.options.heartbeat_dead);
  }
  if (due >= timer_due_) return;
  if (timer_) timer_->Cancel();
  timer_due_ = due;
  timer_ = transport_->provider().timers().Schedule(due - Clock::Process().Now(),
                                                    [weak = weak_from_this(), arming = ++arming_] {
                                                      if (const auto self = weak.lock())
                                                        self->OnTimer(arming);
                                                    });
}

void WireConnection::OnTimer(uint64_t arming) {
  std::vector<std::shared_ptr<ServerCall>> taken;
  Lock lock(mutex_);
  if (arming != arming_ || phase_ == Phase::kClosed) return;
  timer_due_ = TimePoint::max();
  const TimePoint now = Clock::Process().Now();
  while (deadlines_.first() <= now) {
    CallState* const call = deadlines_.front();
    if (auto* const client = dynamic_cast<ClientCall*>(call)) {
      EndClientCall(*client, Status(StatusCode::kDeadlineExceeded));
    } else {
      taken.push_back(EndServerCall(static_cast<ServerCall&>(*call), Status(StatusCode::kDeadlineExceeded)));
    }
  }
  if (phase_ == Phase::kIntroducing) {
    if (now >= settings_.introduction_deadline) CloseSoon(CloseReason::kConnectionLost);
  } else {
    if (paused_for_unsent_ && now >= last_taken_ + settings_.options.heartbeat_dead) {
      // It is not read from, so silence cannot tell; that it takes nothing does.
      ZEM_LIB_LOG(Library::kNet, kLogWarning, "%s: the peer does not read, giving it up", text_.c_str());
      CloseSoon(CloseReason::kConnectionLost);
    } else if (!reading_) {
      last_received_ = now;  // a callback of ours holds the strand: the silence is not the peer's
    } else if (now >= last_received_ + settings_.options.heartbeat_dead) {
      CloseSoon(CloseReason::kHeartbeatTimeout);
    }
    if (now >= last_sent_ + settings_.options.heartbeat_idle) {
      last_sent_ = now;
      AppendControl(FrameType::kPing, 0, 0, 0);
      if (!flushing_) Flush(lock);
    }
  }
  if (!closing_) ArmTimer();
}

}  // namespace zem::rpc
