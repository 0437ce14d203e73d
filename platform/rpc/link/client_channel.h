#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/rpc/channel.h"
#include "platform/rpc/client_call.h"
#include "platform/rpc/link/call_host.h"
#include "platform/rpc/link/call_table.h"
#include "platform/rpc/method.h"

namespace zem::rpc {

/// A channel that this side opened, with its calls.  The connection keeps it while it is open; stubs keep it
/// through `Channel`.
///
/// Threads: any thread; what is named "Receive..." and its callbacks on the connection's strand.
class ClientChannel final : public ClientCallCarrier,
                            public EndReceiver,
                            public std::enable_shared_from_this<ClientChannel> {
 public:
  /// Runs once on the connection's strand: status 0 when the peer has opened the channel.
  using OpenDone = std::function<void(std::shared_ptr<ClientChannel>, const Status&)>;

  ClientChannel(std::shared_ptr<CallHost> connection, std::string source, std::string target, OpenDone done)
      : connection_(std::move(connection)),
        source_(std::move(source)),
        target_(std::move(target)),
        open_done_(std::move(done)) {}

  const std::string& source() const { return source_; }
  const std::string& target() const { return target_; }
  bool down() const;

  void Start(const std::shared_ptr<ClientCall>& call, uint16_t method, const ClientContext& context,
             Channel::Requests requests, const google::protobuf::MessageLite* first);
  void SetOnDown(std::function<void(CloseReason)> hook);
  /// The last stub is gone: closes without calling the hook.
  void Drop();

  // The following run under the connection's mutex.

  /// Names the channel on the wire; OPEN is on its way.
  void SetId(uint32_t id) { id_ = id; }
  /// The channel cannot be opened.
  void Refuse(CloseReason reason, Status status);
  /// Ends the channel and all its calls.
  void End(CloseReason reason);

  // The following take the mutex themselves.

  /// Returns false when no OPENED may come.
  [[nodiscard]] bool ReceiveOpened(uint16_t code);
  void ReceiveClose(CloseReason reason);
  void ReceiveMessage(uint32_t call_id, const char* data, size_t size);
  /// The server has ended a call; `data` is its last message, or null.
  void ReceiveFinal(uint32_t call_id, Status status, const char* data, size_t size);

 private:
  enum class State {
    kOpening,  // OPEN is on its way; OPENED, CLOSE or a loss leaves it
    kOpen,     // calls may start
    kDown,     // for good
  };
  class Batch;

  bool WriteCall(ClientCall& call, const google::protobuf::MessageLite& message, bool last) override;
  bool CloseCall(ClientCall& call, const Status& status) override;
  std::optional<Status> FinalStatusOfCall(const ClientCall& call) const override;
  std::shared_ptr<CallState> ExpireCall(ClientCall& call) override;
  void ReceiveEnd(const Status& status) override;

  // Under the mutex: the call leaves the tables.
  std::shared_ptr<ClientCall> Take(ClientCall& call, const Status& status);
  // Under the mutex: the call ends, which is reported on the strand.
  void EndCall(ClientCall& call, Status status);

  const std::shared_ptr<CallHost> connection_;
  const std::string source_;
  const std::string target_;
  // Guarded by the connection's mutex:
  uint32_t id_ = 0;
  State state_ = State::kOpening;
  CloseReason down_reason_ = CloseReason::kNone;
  bool hook_ran_ = false;
  uint32_t last_call_ = 0;
  CallTable<ClientCall> calls_;
  std::function<void(CloseReason)> hook_;
  OpenDone open_done_;
};

}  // namespace zem::rpc
