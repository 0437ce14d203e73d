#include "platform/rpc/server_impl.h"

#include <utility>

#include "platform/rpc/server_call_state.h"

namespace zem::rpc::server {
namespace {

ServerCallState& Of(const std::shared_ptr<CallState>& call) { return static_cast<ServerCallState&>(*call); }

}  // namespace

std::shared_ptr<CallState> AnswerHandle(const std::shared_ptr<CallState>& call, bool single_answer) {
  struct Token {
    explicit Token(std::shared_ptr<CallState> c) : call(std::move(c)) {}
    ~Token() { Of(call).HandleDropped(); }
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;
    const std::shared_ptr<CallState> call;
  };
  if (single_answer) Of(call).SetSingleAnswer();
  auto token = std::make_shared<Token>(call);
  CallState* const state = token->call.get();
  return {std::move(token), state};
}

void AttachRequests(const std::shared_ptr<CallState>& call, std::unique_ptr<RequestSink> sink,
                    const char* data, size_t size, bool last) {
  Of(call).AttachRequests(std::move(sink), data, size, last);
}

void RefuseMalformed(const std::shared_ptr<CallState>& call) {
  call->Close(Status(StatusCode::kProtocolError, "the request is not a message of the method's type"));
}

void RefuseUnknownMethod(const std::shared_ptr<CallState>& call) {
  call->Close(Status(StatusCode::kUnimplemented, "no such method"));
}

}  // namespace zem::rpc::server
