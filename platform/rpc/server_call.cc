#include "platform/rpc/server_call.h"

#include <mutex>
#include <utility>

#include "platform/rpc/wire_connection.h"

namespace zem::rpc {

void ServerCall::Cancel() { Close(Status(StatusCode::kCancelled)); }

bool ServerCall::Write(const google::protobuf::MessageLite& message, bool last) {
  WireConnection& connection = *channel_->connection;
  std::shared_ptr<ServerCall> taken;
  std::unique_lock lock(connection.mutex_);
  if (ended_) return false;
  last = last || single_answer_;
  if (!last && connection.unsent() > kUnsentLimit) {
    if (!write_refused_) {
      write_refused_ = true;
      connection.refused_writers_.push_back(std::static_pointer_cast<ServerCall>(shared_from_this()));
    }
    return false;
  }
  FrameHeader header;
  header.type = last ? FrameType::kEnd : FrameType::kMessage;
  header.channel = channel_->id;
  header.call = id_;
  Status status;
  if (!connection.AppendMessage(header, {}, &message)) {
    last = true;
    status = Status(StatusCode::kResourceExhausted, "the answer is over the limit of a frame");
    connection.AppendEnd(channel_->id, id_, status);
  }
  if (last) taken = connection.EndServerCall(*this, status);
  connection.SendAppended(lock);
  return status.ok();
}

bool ServerCall::Close(const Status& status) {
  WireConnection& connection = *channel_->connection;
  std::shared_ptr<ServerCall> taken;
  std::unique_lock lock(connection.mutex_);
  if (ended_) return false;
  connection.AppendEnd(channel_->id, id_, status);
  taken = connection.EndServerCall(*this, status);
  connection.SendAppended(lock);
  return true;
}

std::optional<Status> ServerCall::FinalStatus() const {
  std::lock_guard lock(channel_->connection->mutex_);
  return final_status_;
}

void ServerCall::SetOnClose(std::function<void(const Status&)> hook) {
  std::lock_guard lock(channel_->connection->mutex_);
  on_close_ = std::move(hook);
  tell_end_ = true;
  if (!ended_) return;
  channel_->connection->ended_.push_back(
      {nullptr, std::static_pointer_cast<ServerCall>(shared_from_this()), nullptr, *final_status_});
  channel_->connection->PostEnded();
}

void ServerCall::SetOnWritable(std::function<void()> hook) {
  std::lock_guard lock(channel_->connection->mutex_);
  if (ended_) return;
  on_writable_.swap(hook);
  tell_end_ = true;
}

void ServerCall::HandleDropped() {
  if (ended_) return;
  std::shared_ptr<ServerCall> taken;
  std::lock_guard lock(channel_->connection->mutex_);
  if (ended_) return;
  if (dispatching_) {
    forgotten_ = true;
    return;
  }
  taken =
      channel_->connection->EndServerCall(*this, Status(StatusCode::kCancelled, "dropped without an answer"));
}

void ServerCall::AttachRequests(std::unique_ptr<server::RequestSink> sink, const char* data, size_t size,
                                bool last) {
  sink_ = std::move(sink);
  {
    std::lock_guard lock(channel_->connection->mutex_);
    if (sink_) {
      tell_end_ = true;
      if (ended_) {
        channel_->connection->ended_.push_back(
            {nullptr, std::static_pointer_cast<ServerCall>(shared_from_this()), nullptr, *final_status_});
        channel_->connection->PostEnded();
        return;
      }
    }
  }
  ReceiveRequest(data, size, last);
}

void ServerCall::ReceiveRequest(const char* data, size_t size, bool last) {
  if (requests_done_ || (sink_ && data != nullptr && !sink_->Receive(data, size))) {
    server::RefuseMalformed(shared_from_this());
    return;
  }
  if (!last) return;
  requests_done_ = true;
  if (const auto sink = std::move(sink_)) sink->End(Status());
}

void ServerCall::DeliverEnd() {
  std::function<void(const Status&)> hook;
  std::function<void()> unused;  // it usually holds the call's handle, and with it itself
  Status status;
  {
    std::lock_guard lock(channel_->connection->mutex_);
    hook.swap(on_close_);
    unused.swap(on_writable_);
    status = *final_status_;
  }
  if (const auto sink = std::move(sink_)) sink->End(status.ok() ? Status(StatusCode::kCancelled) : status);
  if (hook) hook(status);
}

namespace server {
namespace {

ServerCall& Of(const std::shared_ptr<CallState>& call) { return static_cast<ServerCall&>(*call); }

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

}  // namespace server
}  // namespace zem::rpc
