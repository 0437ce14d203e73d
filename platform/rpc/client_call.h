#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/rpc/call_state.h"
#include "platform/rpc/status.h"

namespace zem::rpc {

class ClientCall;

/// What carries a client's calls to the peer: the channel that the call was started on.  Part of the
/// library's inner side.
class ClientCallCarrier {
 public:
  virtual ~ClientCallCarrier() = default;
  virtual bool WriteCall(ClientCall& call, const google::protobuf::MessageLite& message, bool last) = 0;
  virtual bool CloseCall(ClientCall& call, const Status& status) = 0;
  virtual std::optional<Status> FinalStatusOfCall(const ClientCall& call) const = 0;
  /// See `CallState::Expire`.
  virtual std::shared_ptr<CallState> ExpireCall(ClientCall& call) = 0;
};

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

  /// Returns false when the bytes are not a message of the call's type.
  virtual bool ReceiveMessage(const char* data, size_t size) = 0;
  virtual void ReceiveRemoteStatus(const Status& status) = 0;
  /// Returns the next request of a batch; null when there is no more.  Runs under the connection's mutex.
  virtual const google::protobuf::MessageLite* NextRequest() { return nullptr; }

 private:
  std::shared_ptr<CallState> Expire() final;

  std::shared_ptr<ClientCallCarrier> carrier_;  // set by the start of the call
  // Guarded by the connection's mutex:
  uint32_t id_ = 0;
  bool ended_ = false;
  bool requests_done_ = false;
  const google::protobuf::MessageLite* next_request_ = nullptr;  // of a batch, not yet sent
  std::optional<Status> final_status_;
};

}  // namespace zem::rpc
