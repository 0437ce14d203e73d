#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "platform/rpc/connection.h"
#include "platform/rpc/link/call_host.h"
#include "platform/rpc/link/client_channel.h"
#include "platform/rpc/link/connection_owner.h"
#include "platform/rpc/link/server_call.h"
#include "platform/rpc/wire/receive_buffer.h"

namespace zem {
class Timer;
}

namespace zem::rpc {

namespace wire {
class OpenMsg;
}

/// One connection: its introduction, the frames that it receives, its channels, its heartbeat, its end.
///
/// Threads: the strand runs everything that is received, every status, every hook, and the end.  No callback
/// runs under the mutex.
class WireConnection final : public CallHost {
 public:
  struct Settings {
    bool initiator = false;
    ConnectionOptions options;
    std::vector<std::string> announced;
    /// The server whose listener accepted the connection; null for one made by this side.
    std::weak_ptr<ServerParts> server;
    /// When connecting and introduction must be through.
    TimePoint introduction_deadline;
    std::function<void(WireConnection&)> on_up;
    /// `introduced` is false when `on_up` never ran.
    std::function<void(WireConnection&, CloseReason, bool introduced)> on_down;
    /// Channels have ended, so that the connection may be unused now.
    std::function<void(WireConnection&)> on_channels_ended;

    /// The peer may learn of the ids of `candidate`, and open channels to them.
    bool may_announce(const ServerParts* candidate) const {
      return options.rpc.inbound || (candidate != nullptr && candidate == server.lock().get());
    }
  };

  WireConnection(ConnectionOwner& owner, std::shared_ptr<ByteStream> stream, std::shared_ptr<Strand> strand,
                 Settings settings);
  ~WireConnection() override;

  void Begin();

  /// Ends the connection on its strand.
  void Close(CloseReason reason);
  /// The loop has ended: every status still due is delivered in this stack.
  void DetachLoop();

  void OpenChannel(const std::string& source, const std::string& target, const ServiceInfo& service,
                   ClientChannel::OpenDone done);
  /// Channels to `server` end with "remote close" for the peer.
  void CloseServerChannels(const ServerParts* server, bool close_connection);
  void AnnounceIds(const std::vector<std::string>& added, const std::vector<std::string>& removed);

  ConnectionInfo info() const;
  /// The connection has no channel.
  bool unused() const;
  const Settings& settings() const { return settings_; }

  void OnRead(size_t size) override;

 private:
  enum class Phase {
    kIntroducing,  // HELLO sent, the peer's not yet received
    kUp,
    kClosed,
  };
  struct Forwarded {
    std::weak_ptr<WireConnection> peer;
    uint32_t channel = 0;
    std::string target;
    bool towards_target = false;  // the target lives behind this connection
  };
  // One of the three.
  struct Slot {
    std::shared_ptr<ClientChannel> client;
    std::shared_ptr<ServerChannel> server;
    std::shared_ptr<Forwarded> forwarded;
  };

  // Frames, on the strand (wire_connection_frames.cc).
  void HandleFrame(const FrameHeader& header, const char* payload);
  void HandleHello(const FrameHeader& header, const char* payload);
  void HandleIds(const FrameHeader& header, const char* payload);
  void HandleOpen(const FrameHeader& header, const char* payload);
  void HandleClose(const Slot& slot, const FrameHeader& header);
  void HandleCall(const Slot& slot, const FrameHeader& header, const char* payload);
  void HandleMessage(const Slot& slot, const FrameHeader& header, const char* payload);
  void HandleEnd(const Slot& slot, const FrameHeader& header, const char* payload);
  void Malformed(const char* what, const FrameHeader& header);

  // Forwarding (wire_connection_forwarding.cc); the other connection is called for the frames of this one.
  bool ForwardOpen(const FrameHeader& header, wire::OpenMsg* open);
  void Forward(const Forwarded& forwarded, const FrameHeader& header, const char* payload);
  // Takes an id for a channel whose frames go to `channel` of `peer`; 0 when there is no room.
  uint32_t ReserveForwarded(const std::shared_ptr<WireConnection>& peer, uint32_t channel,
                            const std::string& target);
  // Sends a frame that came on another connection.  False when too much is unsent already.
  bool SendForwarded(FrameHeader header, const char* payload);
  // Ends a forwarded channel of this side and, unless `reason` is none, sends the peer a CLOSE.
  void DropForwarded(uint32_t channel, CloseReason reason);
  void DropForwardedTo(const std::vector<std::string>& targets);
  // Reads again after `SendForwarded` of another connection has refused.
  void ResumeReading();
  // `peer` reads again when half of the limit is free here.
  void ResumeWhenSent(const std::shared_ptr<WireConnection>& peer);

  void ReadMore();
  // Frames that have come, then more of them; stops while too much is unsent.
  void HandleReceived();
  // True when the peer has to take what is unsent first; RoomAgain goes on then.
  bool PauseForUnsent();

  void OnTimer(uint64_t arming);
  // Ends the connection now; on the strand, or when the strand cannot run any more.
  void CloseNow(CloseReason reason);
  void CloseWhenWritten(CloseReason reason);

  void ForgetChannel(uint32_t id) override { slots_.erase(id); }
  void ChannelsEnded() override;
  void ArmTimer() override;
  void CloseSoon(CloseReason reason) override;
  void SendingBroke() override;
  void RoomAgain() override;

  std::shared_ptr<WireConnection> Self();

  ConnectionOwner* owner_;  // null once the loop has ended; strand or mutex
  const Settings settings_;

  // Strand:
  ReceiveBuffer receive_;

  // Guarded by the mutex:
  Phase phase_ = Phase::kIntroducing;
  bool introduced_ = false;
  bool closing_ = false;
  std::vector<std::string> peer_ids_;
  std::map<uint32_t, Slot> slots_;
  uint32_t next_channel_;           // of ours
  uint32_t last_peer_channel_ = 0;  // of the peer's
  std::vector<std::weak_ptr<WireConnection>> refused_forwarders_;

  TimePoint last_received_;
  bool reading_ = false;         // a read is under way; while it is not, silence is not the peer's
  bool reading_paused_ = false;  // a connection that frames are forwarded to is full
  bool paused_for_unsent_ = false;
  std::shared_ptr<Timer> timer_;
  TimePoint timer_due_ = TimePoint::max();
  uint64_t arming_ = 0;
};

}  // namespace zem::rpc
