#include "platform/rpc/link/client_channel.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/rpc/client.h"
#include "platform/rpc/wire/wire.pb.h"

namespace zem::rpc {
namespace {

// What stands before the headers' bytes: the deadline and their length.
constexpr size_t kHeadersPrefix = 8;

// The deadline and, where there are any, the headers: what stands before a CALL's message.
std::string CallPrefix(const ClientContext& context, const std::string& channel_source, bool* has_headers) {
  using std::chrono::milliseconds;
  const int64_t ms = std::chrono::ceil<milliseconds>(context.timeout()).count();
  std::string prefix(4, '\0');
  PutU32(prefix.data(),
         static_cast<uint32_t>(std::clamp<int64_t>(ms, 0, std::numeric_limits<uint32_t>::max())));
  const bool other_source = !context.source_id().empty() && context.source_id() != channel_source;
  *has_headers = other_source || !context.headers().empty();
  if (!*has_headers) return prefix;
  wire::CallHeadersMsg message;
  if (other_source) message.set_source_id(context.source_id());
  for (const auto& [key, value] : context.headers()) {
    auto* const header = message.add_headers();
    header->set_key(key);
    header->set_value(value);
  }
  const std::string bytes = message.SerializeAsString();
  prefix.resize(kHeadersPrefix);
  PutU32(prefix.data() + 4, static_cast<uint32_t>(bytes.size()));
  return prefix + bytes;
}

}  // namespace

/// The requests of one batch call.
class ClientChannel::Batch final : public BatchSource {
 public:
  Batch(ClientChannel& channel, std::shared_ptr<ClientCall> call)
      : channel_(channel), call_(std::move(call)) {}

  bool AppendNext() override {
    ClientCall& call = *call_;
    if (call.ended_) return false;
    if (call.next_request_ == nullptr) call.next_request_ = call.NextRequest();
    FrameHeader header;
    header.type = FrameType::kMessage;
    header.channel = channel_.id_;
    header.call = call.id_;
    const google::protobuf::MessageLite* const message = call.next_request_;
    call.next_request_ = message == nullptr ? nullptr : call.NextRequest();
    if (call.next_request_ == nullptr) header.flags |= kFlagLast;
    if (message == nullptr) header.flags |= kFlagNoMessage;
    CallHost& connection = *channel_.connection_;
    if (!connection.AppendMessage(header, {}, message)) {
      connection.AppendControl(FrameType::kCancel, header.channel, header.call, 0);
      channel_.EndCall(call,
                       Status(StatusCode::kResourceExhausted, "a request is over the limit of a frame"));
    }
    return !call.ended_ && call.next_request_ != nullptr;
  }

 private:
  ClientChannel& channel_;  // kept by the call
  const std::shared_ptr<ClientCall> call_;
};

void ClientChannel::Start(const std::shared_ptr<ClientCall>& call, uint16_t method,
                          const ClientContext& context, Channel::Requests requests,
                          const google::protobuf::MessageLite* first) {
  FrameHeader header;
  header.type = FrameType::kCall;
  header.code = method;
  bool has_headers = false;
  const std::string prefix = CallPrefix(context, source_, &has_headers);
  if (has_headers) header.flags |= kFlagHeaders;
  if (requests == Channel::Requests::kOne) {
    header.flags |= kFlagLast;
  } else {
    header.flags |= kFlagNoMessage;
  }

  CallHost& connection = *connection_;
  CallHost::Lock lock(connection.mutex());
  call->carrier_ = shared_from_this();
  call->requests_done_ = requests != Channel::Requests::kStream;
  const auto refuse = [&](StatusCode code, const char* text) {
    call->ended_ = true;
    call->final_status_ = Status(code, text);
    connection.ReportEnd(call, *call->final_status_);
  };
  if (state_ != State::kOpen || last_call_ == std::numeric_limits<uint32_t>::max()) {
    return refuse(StatusCode::kChannelDown, "the channel is down");
  }
  if (prefix.size() > kHeadersPrefix + kHeadersLimit) {
    return refuse(StatusCode::kResourceExhausted, "the headers are over their limit");
  }
  if (connection.full()) return refuse(StatusCode::kResourceExhausted, "too many calls");
  if (connection.unsent() > kUnsentLimit) return refuse(StatusCode::kResourceExhausted, "too much unsent");
  header.channel = id_;
  header.call = last_call_ + 1;
  if (!connection.AppendMessage(header, prefix, first)) {
    return refuse(StatusCode::kResourceExhausted, "the request is over the limit of a frame");
  }
  call->id_ = ++last_call_;
  calls_.Insert(call->id_, call);
  if (context.timeout() > Duration::zero()) call->deadline_ = Clock::Process().Now() + context.timeout();
  connection.AddCall(*call);
  if (requests == Channel::Requests::kBatch) connection.AddBatch(std::make_unique<Batch>(*this, call));
  connection.SendAppended(lock);
}

void ClientChannel::SetOnDown(std::function<void(CloseReason)> hook) {
  CallHost::Lock lock(connection_->mutex());
  hook_ = std::move(hook);
  if (state_ != State::kDown || hook_ran_) return;
  connection_->ReportChannelEnd(shared_from_this(), Status());
}

void ClientChannel::Drop() {
  std::function<void(CloseReason)> dropped;  // destroyed after the lock: it may own stubs
  CallHost::Lock lock(connection_->mutex());
  dropped.swap(hook_);
  if (state_ == State::kDown) return;
  connection_->AppendControl(FrameType::kClose, id_, 0, static_cast<uint16_t>(CloseReason::kRemoteClose));
  End(CloseReason::kLocalClose);
  connection_->SendAppended(lock);
}

bool ClientChannel::down() const {
  CallHost::Lock lock(connection_->mutex());
  return state_ == State::kDown;
}

void ClientChannel::Refuse(CloseReason reason, Status status) {
  state_ = State::kDown;
  down_reason_ = reason;
  connection_->ReportChannelEnd(shared_from_this(), std::move(status));
}

void ClientChannel::End(CloseReason reason) {
  const Status status(StatusCode::kChannelDown, CloseReasonToCStr(reason));
  state_ = State::kDown;
  down_reason_ = reason;
  for (auto& call : calls_.TakeAll()) {
    call->ended_ = true;
    call->final_status_ = status;
    connection_->RemoveCall(*call);
    connection_->ReportEnd(std::move(call), status);
  }
  connection_->ReportChannelEnd(shared_from_this(), status);
  connection_->ForgetChannel(id_);
}

bool ClientChannel::ReceiveOpened(uint16_t code) {
  OpenDone done;
  {
    CallHost::Lock lock(connection_->mutex());
    if (state_ == State::kOpen) return false;
    if (state_ == State::kOpening && code == 0) {
      state_ = State::kOpen;
      done.swap(open_done_);
    } else if (state_ == State::kOpening) {
      Refuse(CloseReason::kTargetUnreachable, Status(code, "the peer refused the channel"));
      connection_->ForgetChannel(id_);
    }
  }
  if (done) done(shared_from_this(), Status());
  return true;
}

void ClientChannel::ReceiveClose(CloseReason reason) {
  CallHost::Lock lock(connection_->mutex());
  if (state_ != State::kDown) End(reason);
}

void ClientChannel::ReceiveMessage(uint32_t call_id, const char* data, size_t size) {
  std::shared_ptr<ClientCall> call;
  {
    CallHost::Lock lock(connection_->mutex());
    if (const auto* const found = calls_.Find(call_id)) call = *found;
  }
  if (!call || call->ReceiveMessage(data, size)) return;
  CallHost::Lock lock(connection_->mutex());
  if (call->ended_) return;
  connection_->AppendControl(FrameType::kCancel, id_, call_id, 0);
  EndCall(*call, Status(StatusCode::kProtocolError, "the answer is not a message of the method's type"));
  connection_->SendAppended(lock);
}

void ClientChannel::ReceiveFinal(uint32_t call_id, Status status, const char* data, size_t size) {
  std::shared_ptr<ClientCall> call;
  {
    CallHost::Lock lock(connection_->mutex());
    if (const auto* const found = calls_.Find(call_id)) call = Take(**found, status);
  }
  if (!call) return;
  try {
    if (data != nullptr && !call->ReceiveMessage(data, size)) {
      status = Status(StatusCode::kProtocolError, "the answer is not a message of the method's type");
    }
    call->ReceiveRemoteStatus(status);
  } catch (const std::exception& error) {
    connection_->LogThrown(error);  // the call has ended all the same
  }
  call->ReceiveEnd(status);
}

std::shared_ptr<ClientCall> ClientChannel::Take(ClientCall& call, const Status& status) {
  call.ended_ = true;
  call.final_status_ = status;
  connection_->RemoveCall(call);
  return calls_.Take(call.id_);
}

void ClientChannel::EndCall(ClientCall& call, Status status) {
  auto taken = Take(call, status);
  connection_->ReportEnd(std::move(taken), std::move(status));
}

void ClientChannel::ReceiveEnd(const Status& status) {
  std::function<void(CloseReason)> hook;
  OpenDone open_done;
  {
    CallHost::Lock lock(connection_->mutex());
    hook.swap(hook_);
    open_done.swap(open_done_);
    if (hook) hook_ran_ = true;
  }
  if (open_done) open_done(nullptr, status);
  if (hook) hook(down_reason_);
}

bool ClientChannel::WriteCall(ClientCall& call, const google::protobuf::MessageLite& message, bool last) {
  CallHost::Lock lock(connection_->mutex());
  if (call.ended_ || call.requests_done_ || connection_->unsent() > kUnsentLimit) return false;
  FrameHeader header;
  header.type = FrameType::kMessage;
  header.flags = last ? kFlagLast : 0;
  header.channel = id_;
  header.call = call.id_;
  if (!connection_->AppendMessage(header, {}, &message)) return false;
  call.requests_done_ = last;
  connection_->SendAppended(lock);
  return true;
}

bool ClientChannel::CloseCall(ClientCall& call, const Status& status) {
  CallHost::Lock lock(connection_->mutex());
  if (call.ended_) return false;
  if (status.ok()) {
    if (call.requests_done_) return false;
    FrameHeader header;
    header.type = FrameType::kMessage;
    header.flags = kFlagLast | kFlagNoMessage;
    header.channel = id_;
    header.call = call.id_;
    connection_->AppendFrame(header);
    call.requests_done_ = true;
  } else {
    connection_->AppendControl(FrameType::kCancel, id_, call.id_, 0);
    EndCall(call, status);
  }
  connection_->SendAppended(lock);
  return true;
}

std::optional<Status> ClientChannel::FinalStatusOfCall(const ClientCall& call) const {
  CallHost::Lock lock(connection_->mutex());
  return call.final_status_;
}

std::shared_ptr<CallState> ClientChannel::ExpireCall(ClientCall& call) {
  EndCall(call, Status(StatusCode::kDeadlineExceeded));
  return nullptr;  // the report holds it
}

}  // namespace zem::rpc
