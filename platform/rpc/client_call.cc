#include "platform/rpc/client_call.h"

namespace zem::rpc {

ClientCall::~ClientCall() = default;

void ClientCall::Cancel() { Close(Status(StatusCode::kCancelled)); }

bool ClientCall::Write(const google::protobuf::MessageLite& message, bool last) {
  return carrier_->WriteCall(*this, message, last);
}

bool ClientCall::Close(const Status& status) { return carrier_->CloseCall(*this, status); }

std::optional<Status> ClientCall::FinalStatus() const { return carrier_->FinalStatusOfCall(*this); }

std::shared_ptr<CallState> ClientCall::Expire() { return carrier_->ExpireCall(*this); }

}  // namespace zem::rpc
