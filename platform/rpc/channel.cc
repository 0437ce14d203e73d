#include "platform/rpc/channel.h"

#include <algorithm>
#include <limits>
#include <mutex>
#include <utility>

#include "platform/rpc/client.h"
#include "platform/rpc/client_channel.h"
#include "platform/rpc/wire.pb.h"
#include "platform/rpc/wire_connection.h"

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

void StubBase::SetOnStreamDown(std::function<void(CloseReason)> hook) {
  if (channel_) channel_->SetOnDown(std::move(hook));
}

Channel::Channel(std::shared_ptr<ClientChannel> state) : state_(std::move(state)) {}

Channel::~Channel() { state_->Drop(); }

void Channel::SetOnDown(std::function<void(CloseReason)> hook) { state_->SetOnDown(std::move(hook)); }

const std::string& Channel::source_id() const { return state_->source(); }

const std::string& Channel::target() const { return state_->target(); }

bool Channel::down() const { return state_->down(); }

void Channel::Start(const std::shared_ptr<ClientCall>& call, uint16_t method, const ClientContext& context,
                    Requests requests, const google::protobuf::MessageLite* first) {
  state_->Start(call, method, context, requests, first);
}

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

  WireConnection& connection = *connection_;
  std::unique_lock lock(connection.mutex_);
  call->channel_ = shared_from_this();
  call->requests_done_ = requests != Channel::Requests::kStream;
  const auto refuse = [&](StatusCode code, const char* text) {
    call->ended_ = true;
    call->final_status_ = Status(code, text);
    connection.ended_.push_back({call, nullptr, nullptr, *call->final_status_});
    connection.PostEnded();
  };
  if (state_ != State::kOpen || last_call_ == std::numeric_limits<uint32_t>::max()) {
    return refuse(StatusCode::kChannelDown, "the channel is down");
  }
  if (prefix.size() > kHeadersPrefix + kHeadersLimit) {
    return refuse(StatusCode::kResourceExhausted, "the headers are over their limit");
  }
  if (connection.calls_ >= kCallsLimit) return refuse(StatusCode::kResourceExhausted, "too many calls");
  if (connection.unsent() > kUnsentLimit) return refuse(StatusCode::kResourceExhausted, "too much unsent");
  header.channel = id_;
  header.call = last_call_ + 1;
  if (!connection.AppendMessage(header, prefix, first)) {
    return refuse(StatusCode::kResourceExhausted, "the request is over the limit of a frame");
  }
  call->id_ = ++last_call_;
  calls_.Insert(call->id_, call);
  ++connection.calls_;
  if (context.timeout() > Duration::zero()) {
    call->deadline_ = Clock::Process().Now() + context.timeout();
    connection.deadlines_.Insert(*call);
    connection.ArmTimer();
  }
  if (requests == Channel::Requests::kBatch) {
    connection.batches_.push_back(call);
    connection.PumpBatches();
  }
  connection.SendAppended(lock);
}

void ClientChannel::SetOnDown(std::function<void(CloseReason)> hook) {
  std::lock_guard lock(connection_->mutex_);
  hook_ = std::move(hook);
  if (state_ != State::kDown || hook_ran_) return;
  connection_->ended_.push_back({nullptr, nullptr, shared_from_this(), Status()});
  connection_->PostEnded();
}

void ClientChannel::Drop() {
  std::function<void(CloseReason)> dropped;  // destroyed after the lock: it may own stubs
  {
    WireConnection& connection = *connection_;
    std::unique_lock lock(connection.mutex_);
    dropped_ = true;
    dropped.swap(hook_);
    if (state_ == State::kDown) return;
    connection.AppendControl(FrameType::kClose, id_, 0, static_cast<uint16_t>(CloseReason::kRemoteClose));
    connection.EndClientChannel(*this, CloseReason::kLocalClose);
    connection.SendAppended(lock);
  }
}

bool ClientChannel::down() const {
  std::lock_guard lock(connection_->mutex_);
  return state_ == State::kDown;
}

ClientCall::~ClientCall() = default;

void ClientCall::Cancel() { Close(Status(StatusCode::kCancelled)); }

bool ClientCall::Write(const google::protobuf::MessageLite& message, bool last) {
  WireConnection& connection = *channel_->connection_;
  std::unique_lock lock(connection.mutex_);
  if (ended_ || requests_done_ || connection.unsent() > kUnsentLimit) return false;
  FrameHeader header;
  header.type = FrameType::kMessage;
  header.flags = last ? kFlagLast : 0;
  header.channel = channel_->id_;
  header.call = id_;
  if (!connection.AppendMessage(header, {}, &message)) return false;
  requests_done_ = last;
  connection.SendAppended(lock);
  return true;
}

bool ClientCall::Close(const Status& status) {
  WireConnection& connection = *channel_->connection_;
  std::unique_lock lock(connection.mutex_);
  if (ended_) return false;
  if (status.ok()) {
    if (requests_done_) return false;
    FrameHeader header;
    header.type = FrameType::kMessage;
    header.flags = kFlagLast | kFlagNoMessage;
    header.channel = channel_->id_;
    header.call = id_;
    connection.AppendFrame(header);
    requests_done_ = true;
  } else {
    connection.AppendControl(FrameType::kCancel, channel_->id_, id_, 0);
    connection.EndClientCall(*this, status);
  }
  connection.SendAppended(lock);
  return true;
}

std::optional<Status> ClientCall::FinalStatus() const {
  std::lock_guard lock(channel_->connection_->mutex_);
  return final_status_;
}

}  // namespace zem::rpc
