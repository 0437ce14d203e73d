#pragma once

// The typed half of server.h: what generated services call.

#include <cstddef>
#include <memory>
#include <utility>

#include "platform/rpc/call.h"
#include "platform/rpc/server.h"

namespace zem::rpc::server {

/// Receives the request bytes of one call on the connection's strand.
class RequestSink {
 public:
  virtual ~RequestSink() = default;
  /// False when the bytes are not a message of the call's type.
  virtual bool Receive(const char* data, size_t size) = 0;
  virtual void End(const Status& status) = 0;
};

template <class Request>
class ObservedRequests final : public RequestSink {
 public:
  explicit ObservedRequests(std::unique_ptr<RequestObserver<Request>> observer)
      : observer_(std::move(observer)) {}

  bool Receive(const char* data, size_t size) override {
    if (!request_.ParseFromArray(data, static_cast<int>(size))) return false;
    observer_->Next(request_);
    return true;
  }
  void End(const Status& status) override { observer_->End(status); }

 private:
  std::unique_ptr<RequestObserver<Request>> observer_;
  Request request_;
};

/// The call as its handler holds it: when the last copy goes without an answer, the call is forgotten.
/// With `single_answer` its first message is the final one.
std::shared_ptr<CallState> AnswerHandle(const std::shared_ptr<CallState>& call, bool single_answer);

/// Further requests go to `sink`; `data` is the first, or null.
void AttachRequests(const std::shared_ptr<CallState>& call, std::unique_ptr<RequestSink> sink,
                    const char* data, size_t size, bool last);

void RefuseMalformed(const std::shared_ptr<CallState>& call);
void RefuseUnknownMethod(const std::shared_ptr<CallState>& call);

template <bool kSingleAnswer, class Service, class Request, class Response>
void DispatchOne(Service& service,
                 void (Service::*handler)(ServerContext&, const Request&, CallHandle<Response>),
                 const std::shared_ptr<CallState>& call, const char* data, size_t size, bool last) {
  Request request;
  if (!last || data == nullptr || !request.ParseFromArray(data, static_cast<int>(size))) {
    RefuseMalformed(call);
    return;
  }
  ServerContext context(call);
  (service.*handler)(context, request, CallHandle<Response>(AnswerHandle(call, kSingleAnswer)));
}

template <bool kSingleAnswer, class Service, class Request, class Response>
void DispatchStream(Service& service,
                    std::unique_ptr<RequestObserver<Request>> (Service::*handler)(ServerContext&,
                                                                                  CallHandle<Response>),
                    const std::shared_ptr<CallState>& call, const char* data, size_t size, bool last) {
  ServerContext context(call);
  std::unique_ptr<RequestObserver<Request>> observer =
      (service.*handler)(context, CallHandle<Response>(AnswerHandle(call, kSingleAnswer)));
  std::unique_ptr<RequestSink> sink;
  if (observer) sink = std::make_unique<ObservedRequests<Request>>(std::move(observer));
  AttachRequests(call, std::move(sink), data, size, last);
}

}  // namespace zem::rpc::server
