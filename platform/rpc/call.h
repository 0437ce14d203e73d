#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/core/clock.h"
#include "platform/rpc/status.h"

namespace google::protobuf {
class MessageLite;
}

namespace zem::rpc {

class CallState;

/// What is the same for every call, whichever side holds it.  Copies share the call.
///
/// Threads: all operations from any thread.
class CallHandleBase {
 public:
  CallHandleBase() = default;
  explicit CallHandleBase(std::shared_ptr<CallState> state) : state_(std::move(state)) {}

  explicit operator bool() const { return state_ != nullptr; }

  /// Ends the call with "cancelled" on both sides.  Nothing when it has ended.
  void Cancel();

  /// How the call ended; nothing while it runs, and for a handle without a call.
  std::optional<Status> FinalStatus() const;

 protected:
  bool WriteMessage(const google::protobuf::MessageLite& message, bool last);
  bool CloseWith(const Status& status);

  std::shared_ptr<CallState> state_;
};

/// A call that answers with `Response`.  On the client side it serves to cancel; on the server side to
/// answer.
///
/// A server's handle whose last copy goes without an answer forgets the call and sends nothing: the caller
/// runs into its own time-out.
template <class Response>
class CallHandle : public CallHandleBase {
 public:
  using CallHandleBase::CallHandleBase;

  /// Server: one message of a streaming answer; of a unary call it is the final one.  False when the call has
  /// ended or the connection's unsent bytes are over the limit (see `SetOnWritable`).
  bool Write(const Response& message) { return WriteMessage(message, false); }

  /// Server: the final message with status OK.  False when the call has ended.
  bool Finish(const Response& message) { return WriteMessage(message, true); }

  /// Server: ends the call.  False when it has ended.
  bool Close(const Status& status) { return CloseWith(status); }
  bool Close(int code, std::string text = {}) { return CloseWith(Status(code, std::move(text))); }
};

/// A client's call with requests written one by one.
template <class Request, class Response>
class StreamHandle : public CallHandle<Response> {
 public:
  using CallHandle<Response>::CallHandle;

  /// False when the call has ended or the connection's unsent bytes are over the limit.
  bool WriteRequest(const Request& message) { return this->WriteMessage(message, false); }

  /// No more requests.
  bool FinishRequests() { return this->CloseWith(Status()); }
};

/// What a server knows of one call.  Copies share it and stay valid after the handler has returned and after
/// the end of the call; the object that the handler is given lives only during the handler.
///
/// Threads: the getters from any thread once the handler runs.
class ServerContext {
 public:
  explicit ServerContext(std::shared_ptr<CallState> state) : state_(std::move(state)) {}

  /// The local endpoint id that was called.
  const std::string& target_id() const;
  /// Who called: the call's source id, else the channel's.
  const std::string& client_id() const;
  const std::vector<std::pair<std::string, std::string>>& headers() const;
  /// TimePoint::max() when there is none.
  TimePoint deadline() const;

  /// Runs once when the call ends by whatever side: final status, cancel, deadline, loss.  On the
  /// connection's strand.
  void SetOnClose(std::function<void(const Status&)> hook);

  /// Runs when the unsent bytes have fallen below half of the limit after a refused `Write`.  Let go of when
  /// the call ends, so that it may hold the call's handle.
  void SetOnWritable(std::function<void()> hook);

 private:
  std::shared_ptr<CallState> state_;
};

}  // namespace zem::rpc
