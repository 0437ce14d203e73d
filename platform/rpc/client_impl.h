#pragma once

// The typed half of client.h: what generated stubs call.

#include <optional>
#include <type_traits>

#include "platform/rpc/channel.h"
#include "platform/rpc/client.h"
#include "platform/rpc/client_call.h"

namespace zem::rpc::client {

/// Hands what is received to an observer.  A null observer takes nothing.
template <class Response>
class ObservedCall : public ClientCall {
 public:
  explicit ObservedCall(CallObserver<Response>* observer) : observer_(observer) {}

 protected:
  bool ReceiveMessage(const char* data, size_t size) final {
    // One message per call, parsed into again and again: a stream's strings and submessages keep their
    // memory.
    if (!response_) response_.emplace();
    if (!response_->ParseFromArray(data, static_cast<int>(size))) return false;
    if (observer_ != nullptr) observer_->Next(*response_);
    return true;
  }
  void ReceiveRemoteStatus(const Status& status) final {
    if (observer_ != nullptr) observer_->RemoteStatus(status);
  }
  void ReceiveEnd(const Status& status) final {
    CallObserver<Response>* const observer = observer_;
    observer_ = nullptr;  // the usual one deletes itself now
    if (observer != nullptr) observer->CallStatus(status);
  }

 private:
  CallObserver<Response>* observer_;
  std::optional<Response> response_;
};

template <class Request, class Response>
class BatchCall final : public ObservedCall<Response> {
 public:
  BatchCall(CallObserver<Response>* observer, std::shared_ptr<const std::list<Request>> requests)
      : ObservedCall<Response>(observer), requests_(std::move(requests)), next_(requests_->begin()) {}

 private:
  const google::protobuf::MessageLite* NextRequest() override {
    if (next_ == requests_->end()) return nullptr;
    return &*next_++;
  }

  const std::shared_ptr<const std::list<Request>> requests_;
  typename std::list<Request>::const_iterator next_;
};

template <class Request, class Response, MethodKind kKind>
CallHandle<Response> Call(const std::shared_ptr<Channel>& channel,
                          const Method<Request, Response, kKind>& method, const ClientContext& context,
                          const std::type_identity_t<Request>& request,
                          std::type_identity_t<CallObserver<Response>>* observer) {
  static_assert(kKind == MethodKind::kUnary || kKind == MethodKind::kServerStream);
  auto call = std::make_shared<ObservedCall<Response>>(observer);
  channel->Start(call, method.index, context, Channel::Requests::kOne, &request);
  return CallHandle<Response>(std::move(call));
}

template <class Request, class Response>
CallHandle<Response> AsyncBatchCall(const std::shared_ptr<Channel>& channel,
                                    const Method<Request, Response, MethodKind::kClientStream>& method,
                                    const ClientContext& context,
                                    std::shared_ptr<const std::list<std::type_identity_t<Request>>> requests,
                                    std::type_identity_t<CallObserver<Response>>* observer) {
  auto call = std::make_shared<BatchCall<Request, Response>>(observer, std::move(requests));
  channel->Start(call, method.index, context, Channel::Requests::kBatch, nullptr);
  return CallHandle<Response>(std::move(call));
}

template <class Request, class Response, MethodKind kKind>
StreamHandle<Request, Response> OpenStream(const std::shared_ptr<Channel>& channel,
                                           const Method<Request, Response, kKind>& method,
                                           const ClientContext& context,
                                           std::type_identity_t<CallObserver<Response>>* observer) {
  static_assert(kKind == MethodKind::kClientStream || kKind == MethodKind::kBidirectional);
  auto call = std::make_shared<ObservedCall<Response>>(observer);
  channel->Start(call, method.index, context, Channel::Requests::kStream, nullptr);
  return StreamHandle<Request, Response>(std::move(call));
}

}  // namespace zem::rpc::client
