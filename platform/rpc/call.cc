#include "platform/rpc/call.h"

#include "platform/rpc/server_call_state.h"

namespace zem::rpc {
namespace {

// A context is made for server calls only.
ServerCallState& ServerSide(const std::shared_ptr<CallState>& state) {
  return static_cast<ServerCallState&>(*state);
}

}  // namespace

void CallHandleBase::Cancel() {
  if (state_) state_->Cancel();
}

std::optional<Status> CallHandleBase::FinalStatus() const {
  return state_ ? state_->FinalStatus() : std::nullopt;
}

bool CallHandleBase::WriteMessage(const google::protobuf::MessageLite& message, bool last) {
  return state_ && state_->Write(message, last);
}

bool CallHandleBase::CloseWith(const Status& status) { return state_ && state_->Close(status); }

const std::string& ServerContext::target_id() const { return ServerSide(state_).target_id(); }

const std::string& ServerContext::client_id() const { return ServerSide(state_).client_id(); }

const std::vector<std::pair<std::string, std::string>>& ServerContext::headers() const {
  return ServerSide(state_).headers();
}

TimePoint ServerContext::deadline() const { return ServerSide(state_).deadline(); }

void ServerContext::SetOnClose(std::function<void(const Status&)> hook) {
  ServerSide(state_).SetOnClose(std::move(hook));
}

void ServerContext::SetOnWritable(std::function<void()> hook) {
  ServerSide(state_).SetOnWritable(std::move(hook));
}

}  // namespace zem::rpc
