#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/clock.h"
#include "platform/rpc/byte_stream.h"
#include "platform/rpc/client_channel.h"
#include "platform/rpc/connection.h"
#include "platform/rpc/deadline_heap.h"
#include "platform/rpc/frame.h"
#include "platform/rpc/receive_buffer.h"
#include "platform/rpc/send_buffer.h"
#include "platform/rpc/server_call.h"
#include "platform/rpc/strand.h"

namespace zem {
class Timer;
}

namespace zem::rpc {

namespace wire {
class OpenMsg;
}

class TransportImpl;

/// One connection: its frames, its channels, its heartbeat.
///
/// Threads: the strand runs everything that is received, every status, every hook, and the end; what is sent
/// comes from any thread under one mutex, straight into the send buffer.  No callback runs under the mutex.
class WireConnection final : public ByteStreamReader, public std::enable_shared_from_this<WireConnection> {
 public:
  struct Settings {
    bool initiator = false;
    ConnectionOptions options;
    std::vector<std::string> announced;
    /// Whose listener accepted it; null for a connection made by this side.
    std::weak_ptr<ServerParts> server;
    /// When connecting and introduction must be through.
    TimePoint introduction_deadline;
    std::function<void(WireConnection&)> on_up;
    /// `introduced` is false when `on_up` never ran.
    std::function<void(WireConnection&, CloseReason, bool introduced)> on_down;
  };

  WireConnection(TransportImpl& transport, std::shared_ptr<ByteStream> stream, std::shared_ptr<Strand> strand,
                 Settings settings);
  ~WireConnection() override;

  void Begin();

  /// Ends the connection on its strand.
  void Close(CloseReason reason);
  /// Ends it now; for the strand, and for the transport's end, when the strand cannot run any more.
  void CloseNow(CloseReason reason);
  /// The loop has ended: every status still due is delivered in this stack.
  void DetachLoop();

  void OpenChannel(const std::string& source, const std::string& target, const ServiceInfo& service,
                   ClientChannel::OpenDone done);
  /// Channels to `server` end with "remote close" for the peer.
  void CloseServerChannels(const ServerParts* server, bool close_connection);
  void AnnounceIds(const std::vector<std::string>& added, const std::vector<std::string>& removed);

  ConnectionInfo info() const;
  bool up() const;
  bool unused() const;
  bool may_announce(const ServerParts* server) const {
    return settings_.options.rpc.inbound || (server != nullptr && server == settings_.server.lock().get());
  }
  const ConnectionOptions& options() const { return settings_.options; }
  std::shared_ptr<ServerParts> server() const { return settings_.server.lock(); }
  const std::shared_ptr<Strand>& strand() const { return strand_; }

  /// Forwarding: takes an id for a channel whose frames go to `channel` of `peer`; 0 when there is no room.
  uint32_t ReserveForwarded(const std::shared_ptr<WireConnection>& peer, uint32_t channel,
                            const std::string& target);
  /// Sends a frame that came on another connection.  False when too much is unsent already.
  bool SendForwarded(FrameHeader header, const char* payload);
  /// Ends a forwarded channel of this side and, unless `reason` is none, tells the peer.
  void DropForwarded(uint32_t channel, CloseReason reason);
  /// Reads again after `SendForwarded` of another connection has refused.
  void ResumeReading();
  /// `peer` reads again when half of the limit is free here.
  void ResumeWhenSent(const std::shared_ptr<WireConnection>& peer);

  // The end of a gathering of writes (see FlushScope).
  void FlushGathered();

  void OnRead(size_t size) override;
  void OnWritable() override;

 private:
  friend class ClientCall;
  friend class ClientChannel;
  friend class ServerCall;

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
  using Lock = std::unique_lock<std::mutex>;
  struct Ended {
    std::shared_ptr<ClientCall> client;
    std::shared_ptr<ServerCall> server;
    std::shared_ptr<ClientChannel> channel;  // its hook, or the end of its opening
    Status status;
  };

  // Frames, on the strand (wire_connection_frames.cc).
  void HandleFrame(const FrameHeader& header, const char* payload);
  void HandleHello(const FrameHeader& header, const char* payload);
  void HandleIds(const FrameHeader& header, const char* payload);
  void HandleOpen(const FrameHeader& header, const char* payload);
  bool ForwardOpen(const FrameHeader& header, wire::OpenMsg* open);
  void HandleOpened(const Slot& slot, const FrameHeader& header);
  void HandleClose(const Slot& slot, const FrameHeader& header);
  void HandleCall(const Slot& slot, const FrameHeader& header, const char* payload);
  void HandleMessage(const Slot& slot, const FrameHeader& header, const char* payload);
  void HandleEnd(const Slot& slot, const FrameHeader& header, const char* payload);
  void HandleCancel(const Slot& slot, const FrameHeader& header);
  void Forward(const Forwarded& forwarded, const FrameHeader& header, const char* payload);
  void Malformed(const char* what, const FrameHeader& header);
  void LogThrown(const std::exception& error) const;

  // Sending, under the mutex.
  char* AppendFrame(FrameHeader header);
  // False, and nothing appended, when the frame would be over the limit.
  bool AppendMessage(FrameHeader header, std::string_view prefix,
                     const google::protobuf::MessageLite* message);
  void AppendControl(FrameType type, uint32_t channel, uint32_t call, uint16_t code);
  void AppendEnd(uint32_t channel, uint32_t call, const Status& status);
  size_t unsent() const { return pending_.size() + active_.size(); }
  // Over the first limit the reading stops, over the last one the connection ends, whoever appended.
  void LimitUnsent();
  void DropUnsent();
  // What was appended goes out: at the end of the callbacks of this thread, at once, or soon.
  void SendAppended(Lock& lock);
  void Flush(Lock& lock);
  void PumpBatches();
  void WakeWriters();

  // Ends, under the mutex; what is due is told on the strand.
  std::shared_ptr<ClientCall> TakeClientCall(ClientCall& call, const Status& status);
  void EndClientCall(ClientCall& call, Status status);
  // The call leaves the tables; the caller lets go of it after the mutex.
  [[nodiscard]] std::shared_ptr<ServerCall> EndServerCall(ServerCall& call, Status status);
  void EndClientChannel(ClientChannel& channel, CloseReason reason);
  void PostEnded();
  // On the strand.
  void TellEnded();

  void ReadMore();
  // Frames that have come, then more of them; stops while too much is unsent.
  void HandleReceived();
  // True when the peer has to take what is unsent first; WakeWriters goes on then.
  bool PauseForUnsent();
  void ArmTimer();
  void OnTimer(uint64_t arming);
  void CloseSoon(CloseReason reason);  // under the mutex
  void CloseWhenWritten(CloseReason reason);

  TransportImpl* transport_;  // null once the loop has ended; strand or mutex
  const std::shared_ptr<Strand> strand_;
  const Settings settings_;
  const std::string text_;

  // Strand:
  ReceiveBuffer receive_;

  mutable std::mutex mutex_;  // guards all below
  std::shared_ptr<ByteStream> stream_;
  Phase phase_ = Phase::kIntroducing;
  bool introduced_ = false;
  bool closing_ = false;
  std::vector<std::string> peer_ids_;
  std::map<uint32_t, Slot> slots_;
  uint32_t next_channel_;           // of ours
  uint32_t last_peer_channel_ = 0;  // of the peer's
  size_t calls_ = 0;                // both ways
  DeadlineHeap deadlines_;
  std::vector<Ended> ended_;
  bool ended_posted_ = false;

  SendBuffer pending_;  // appended to
  SendBuffer active_;   // being written by whoever has set flushing_
  bool flushing_ = false;
  bool in_write_ = false;  // a thread is at the socket, without the mutex
  bool gathered_ = false;  // a FlushScope will flush
  bool flush_posted_ = false;
  TimePoint last_direct_flush_{};
  std::vector<std::shared_ptr<ClientCall>> batches_;
  std::vector<std::weak_ptr<ServerCall>> refused_writers_;
  std::vector<std::weak_ptr<WireConnection>> refused_forwarders_;

  TimePoint last_sent_;
  TimePoint last_received_;
  bool reading_ = false;         // a read is under way; while it is not, silence is not the peer's
  bool reading_paused_ = false;  // a connection that frames are forwarded to is full
  bool paused_for_unsent_ = false;
  std::atomic<bool> over_limit_{false};  // written under the mutex
  bool given_up_ = false;                // the peer does not read: what is appended from now on is dropped
  TimePoint last_taken_{};               // when the socket took bytes
  std::shared_ptr<Timer> timer_;
  TimePoint timer_due_ = TimePoint::max();
  uint64_t arming_ = 0;
};

}  // namespace zem::rpc
