#pragma once

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/core/clock.h"
#include "platform/rpc/call.h"
#include "platform/rpc/close_reason.h"
#include "platform/rpc/method.h"
#include "platform/rpc/status.h"

namespace zem::rpc {

/// What accompanies a call: who calls, how long it may take, free headers.
class ClientContext {
 public:
  ClientContext() = default;
  explicit ClientContext(std::string source_id) : source_id_(std::move(source_id)) {}

  /// Differs from the channel's source only where one channel speaks for several ids.  Empty: the channel's.
  void set_source_id(std::string id) { source_id_ = std::move(id); }
  const std::string& source_id() const { return source_id_; }

  /// Zero: no limit.  Both ends drop the call on their own clock.
  void set_timeout(Duration timeout) { timeout_ = timeout; }
  Duration timeout() const { return timeout_; }

  /// A call whose headers take more than 64 KiB in all ends with 11.
  void AddHeader(std::string key, std::string value) {
    headers_.emplace_back(std::move(key), std::move(value));
  }
  const std::vector<std::pair<std::string, std::string>>& headers() const { return headers_; }

 private:
  std::string source_id_;
  Duration timeout_{};
  std::vector<std::pair<std::string, std::string>> headers_;
};

/// Receives one call's answers.  Made with `new` by the caller of a stub's method, not owned by the library;
/// the usual observer deletes itself at the end of `CallStatus`.
///
/// Threads: all operations of all observers of one connection run on one strand, in the order of the wire,
/// never in the stack of the call that made them.  `CallStatus` comes exactly once, last; inside it the
/// observer may delete itself, start calls, drop its stub or its client.
template <class Response>
class CallObserver {
 public:
  virtual void Next(const Response& message) = 0;
  /// The server's own status, when the call ended by the server; before `CallStatus`.
  virtual void RemoteStatus(const Status&) {}
  virtual void CallStatus(const Status& status) = 0;
  virtual ~CallObserver() = default;
};

class Channel;

/// The base of generated stubs: a shared channel to one service of one target.  Copies share the channel; the
/// last one gone closes it, without calling its hook.
class StubBase {
 public:
  StubBase() = default;
  explicit StubBase(std::shared_ptr<Channel> channel) : channel_(std::move(channel)) {}

  /// Called once when the channel ends for any reason but the drop of its last stub, after the status of each
  /// of its calls; posted at once when it is down already.
  void SetOnStreamDown(std::function<void(CloseReason)> hook);

  const std::shared_ptr<Channel>& channel() const { return channel_; }

 private:
  std::shared_ptr<Channel> channel_;
};

namespace client {

// A derived observer and a braced list convert: the types follow from the method alone.

/// Starts a call of one request.  The handle may be dropped: that does not cancel.
template <class Request, class Response, MethodKind kKind>
CallHandle<Response> Call(const std::shared_ptr<Channel>& channel,
                          const Method<Request, Response, kKind>& method, const ClientContext& context,
                          const std::type_identity_t<Request>& request,
                          std::type_identity_t<CallObserver<Response>>* observer);

/// Sends every request of the list as one message of one client-streaming call.  The list is kept, not
/// copied, and serialized in slices as the socket drains.
template <class Request, class Response>
CallHandle<Response> AsyncBatchCall(const std::shared_ptr<Channel>& channel,
                                    const Method<Request, Response, MethodKind::kClientStream>& method,
                                    const ClientContext& context,
                                    std::shared_ptr<const std::list<std::type_identity_t<Request>>> requests,
                                    std::type_identity_t<CallObserver<Response>>* observer);

/// A call whose requests are written one by one, answered by a stream (or by one message).
template <class Request, class Response, MethodKind kKind>
StreamHandle<Request, Response> OpenStream(const std::shared_ptr<Channel>& channel,
                                           const Method<Request, Response, kKind>& method,
                                           const ClientContext& context,
                                           std::type_identity_t<CallObserver<Response>>* observer);

}  // namespace client
}  // namespace zem::rpc
