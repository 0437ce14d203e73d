#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/rpc/call_state.h"
#include "platform/rpc/close_reason.h"
#include "platform/rpc/status.h"

namespace zem::rpc {

class ClientChannel;
class ClientContext;
class WireConnection;

/// A call from the caller's side.  What is received comes on the connection's strand.  Part of the library's
/// inner side.
class ClientCall : public CallState {
 public:
  ~ClientCall() override;

  void Cancel() final;
  bool Write(const google::protobuf::MessageLite& message, bool last) final;
  bool Close(const Status& status) final;
  std::optional<Status> FinalStatus() const final;

 protected:
  friend class ClientChannel;
  friend class WireConnection;

  /// False when the bytes are not a message of the call's type.
  virtual bool ReceiveMessage(const char* data, size_t size) = 0;
  virtual void ReceiveRemoteStatus(const Status& status) = 0;
  virtual void ReceiveCallStatus(const Status& status) = 0;
  /// The next request of a batch; null when there is no more.  Runs under the connection's mutex.
  virtual const google::protobuf::MessageLite* NextRequest() { return nullptr; }

 private:
  std::shared_ptr<ClientChannel> channel_;
  // Guarded by the connection's mutex:
  uint32_t id_ = 0;
  bool ended_ = false;
  bool requests_done_ = false;
  const google::protobuf::MessageLite* next_request_ = nullptr;  // of a batch, not yet sent
  std::optional<Status> final_status_;
};

/// A channel as its stubs share it: one source, one target, one service.  The end of the object closes it.
///
/// Threads: all operations from any thread.
class Channel {
 public:
  explicit Channel(std::shared_ptr<ClientChannel> state);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  void SetOnDown(std::function<void(CloseReason)> hook);

  const std::string& source_id() const;
  const std::string& target() const;
  bool down() const;

  /// What a call begins with.
  enum class Requests {
    kOne,     ///< `first` is the only request
    kStream,  ///< requests follow by `Write`
    kBatch,   ///< requests come from `ClientCall::NextRequest`
  };
  /// Starts `call`; whatever goes wrong comes as its status.
  void Start(const std::shared_ptr<ClientCall>& call, uint16_t method, const ClientContext& context,
             Requests requests, const google::protobuf::MessageLite* first);

 private:
  std::shared_ptr<ClientChannel> state_;
};

}  // namespace zem::rpc
