#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/rpc/link/wire_connection.h"
#include "platform/rpc/wire/wire.pb.h"

// Channels that pass through this process.  A forwarded channel has a slot in both connections; a frame that
// comes on one goes out on the other with only its channel id rewritten.

namespace zem::rpc {

bool WireConnection::ForwardOpen(const FrameHeader& header, wire::OpenMsg* open) {
  const std::shared_ptr<WireConnection> peer = owner_->RouteForwarded(*this, open->mutable_target());
  if (!peer) return false;
  const uint32_t channel = peer->ReserveForwarded(Self(), header.channel, open->target());
  if (channel == 0) return false;
  {
    Lock lock(mutex());
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
    peer->ResumeWhenSent(Self());
  }
}

uint32_t WireConnection::ReserveForwarded(const std::shared_ptr<WireConnection>& peer, uint32_t channel,
                                          const std::string& target) {
  Lock lock(mutex());
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
  Lock lock(mutex());
  if (phase_ != Phase::kUp) return true;  // the end of the connection informs the other side
  char* const out = AppendFrame(header);
  if (header.length > 0) std::memcpy(out, payload, header.length);
  SendAppended(lock);
  return unsent() <= kUnsentLimit;
}

void WireConnection::DropForwarded(uint32_t channel, CloseReason reason) {
  Slot dropped;
  Lock lock(mutex());
  const auto found = slots_.find(channel);
  if (found == slots_.end() || !found->second.forwarded) return;
  dropped = std::move(found->second);
  slots_.erase(found);
  if (reason == CloseReason::kNone) return;
  AppendControl(FrameType::kClose, channel, 0, static_cast<uint16_t>(reason));
  SendAppended(lock);
}

void WireConnection::ResumeReading() {
  strand()->Post([self = Self()] {
    if (std::exchange(self->reading_paused_, false)) self->HandleReceived();
  });
}

void WireConnection::ResumeWhenSent(const std::shared_ptr<WireConnection>& peer) {
  Lock lock(mutex());
  if (phase_ != Phase::kUp || unsent() <= kUnsentResume) {
    peer->ResumeReading();
  } else {
    refused_forwarders_.push_back(peer);
  }
}

// The targets have left the peer of this connection.
void WireConnection::DropForwardedTo(const std::vector<std::string>& targets) {
  std::vector<std::pair<uint32_t, std::shared_ptr<Forwarded>>> gone;
  {
    Lock lock(mutex());
    for (const auto& [channel, slot] : slots_) {
      if (slot.forwarded && slot.forwarded->towards_target &&
          std::find(targets.begin(), targets.end(), slot.forwarded->target) != targets.end()) {
        gone.emplace_back(channel, slot.forwarded);
      }
    }
  }
  for (const auto& [channel, forwarded] : gone) {
    DropForwarded(channel, CloseReason::kRemoteClose);
    if (const auto peer = forwarded->peer.lock()) {
      peer->DropForwarded(forwarded->channel, CloseReason::kTargetUnreachable);
    }
  }
}

}  // namespace zem::rpc
