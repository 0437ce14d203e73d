#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "platform/rpc/call_table.h"
#include "platform/rpc/channel.h"
#include "platform/rpc/method.h"

namespace zem::rpc {

class WireConnection;

/// A channel that this side opened.  The connection keeps it while it is open; stubs keep it through
/// `Channel`.
class ClientChannel : public std::enable_shared_from_this<ClientChannel> {
 public:
  /// Runs once on the connection's strand: status 0 when the peer has opened the channel.
  using OpenDone = std::function<void(std::shared_ptr<ClientChannel>, const Status&)>;

  ClientChannel(std::shared_ptr<WireConnection> connection, std::string source, std::string target,
                const ServiceInfo& service)
      : connection_(std::move(connection)),
        source_(std::move(source)),
        target_(std::move(target)),
        service_(service) {}

  const std::string& source() const { return source_; }
  const std::string& target() const { return target_; }

  void Start(const std::shared_ptr<ClientCall>& call, uint16_t method, const ClientContext& context,
             Channel::Requests requests, const google::protobuf::MessageLite* first);
  void SetOnDown(std::function<void(CloseReason)> hook);
  /// The last stub is gone: closes without calling the hook.
  void Drop();
  bool down() const;

 private:
  friend class ClientCall;
  friend class WireConnection;

  enum class State {
    kOpening,  // OPEN is on its way; OPENED, CLOSE or a loss leaves it
    kOpen,     // calls may start
    kDown,     // for good
  };

  const std::shared_ptr<WireConnection> connection_;
  const std::string source_;
  const std::string target_;
  const ServiceInfo& service_;
  // Guarded by the connection's mutex:
  uint32_t id_ = 0;
  State state_ = State::kOpening;
  CloseReason down_reason_ = CloseReason::kNone;
  bool dropped_ = false;
  bool hook_ran_ = false;
  uint32_t last_call_ = 0;
  CallTable<ClientCall> calls_;
  std::function<void(CloseReason)> hook_;
  OpenDone open_done_;
};

}  // namespace zem::rpc
