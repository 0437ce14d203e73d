#include "platform/rpc/link/server_call.h"

#include <utility>

#include "platform/core/lib_log.h"

namespace zem::rpc {

bool ServerChannel::ReceiveCall(ReceivedCall received) {
  std::shared_ptr<ServiceBase> service;
  std::shared_ptr<ServerCall> call;
  {
    CallHost::Lock lock(connection_->mutex());
    if (!service_) return true;  // the channel has ended here: the call is late
    if (received.id <= last_call_) return false;
    last_call_ = received.id;
    if (connection_->full()) {
      connection_->AppendEnd(id_, received.id, Status(StatusCode::kResourceExhausted, "too many calls"));
      connection_->SendAppended(lock);
      return true;
    }
    service = service_;
    call = std::make_shared<ServerCall>(shared_from_this(), &received);
    calls_.Insert(received.id, call);
    connection_->AddCall(*call);
  }
  try {
    service->Dispatch(received.method, call, received.data, received.size, received.last);
  } catch (const std::exception& error) {
    ZEM_LIB_LOG(Library::kRpc, kLogError, "%s: method %u of %s threw: %s", connection_->text().c_str(),
                received.method, service->info().name, error.what());
    call->Close(Status(StatusCode::kInternal, error.what()));
  }
  call->Dispatched();
  return true;
}

void ServerChannel::ReceiveMessage(uint32_t call_id, const char* data, size_t size, bool last) {
  std::shared_ptr<ServerCall> call;
  {
    CallHost::Lock lock(connection_->mutex());
    if (const auto* const found = calls_.Find(call_id)) call = *found;
  }
  if (!call) return;
  try {
    call->ReceiveRequest(data, size, last);
  } catch (const std::exception& error) {
    connection_->LogThrown(error);
    call->Close(Status(StatusCode::kInternal, error.what()));
  }
}

void ServerChannel::ReceiveCancel(uint32_t call_id) {
  std::shared_ptr<ServerCall> taken;
  CallHost::Lock lock(connection_->mutex());
  if (const auto* const found = calls_.Find(call_id)) taken = (*found)->End(Status(StatusCode::kCancelled));
}

ServerChannel::Remains ServerChannel::End(const char* why) {
  const Status status(StatusCode::kChannelDown, why);
  Remains remains;
  remains.service = std::move(service_);
  remains.calls = calls_.TakeAll();
  for (const auto& call : remains.calls) call->MarkEnded(status);
  return remains;
}

ServerCall::ServerCall(std::shared_ptr<ServerChannel> channel, ReceivedCall* received)
    : channel_(std::move(channel)),
      connection_(channel_->connection()),
      id_(received->id),
      source_id_(std::move(received->source_id)),
      headers_(std::move(received->headers)) {
  if (received->deadline_ms > 0)
    deadline_ = Clock::Process().Now() + std::chrono::milliseconds(received->deadline_ms);
}

void ServerCall::Cancel() { Close(Status(StatusCode::kCancelled)); }

bool ServerCall::Write(const google::protobuf::MessageLite& message, bool last) {
  std::shared_ptr<ServerCall> taken;
  CallHost::Lock lock(connection_.mutex());
  if (ended_) return false;
  last = last || single_answer_;
  if (!last && connection_.unsent() > kUnsentLimit) {
    if (!write_refused_) {
      write_refused_ = true;
      connection_.AddRefusedWriter(Self());
    }
    return false;
  }
  FrameHeader header;
  header.type = last ? FrameType::kEnd : FrameType::kMessage;
  header.channel = channel_->id_;
  header.call = id_;
  Status status;
  if (!connection_.AppendMessage(header, {}, &message)) {
    last = true;
    status = Status(StatusCode::kResourceExhausted, "the answer is over the limit of a frame");
    connection_.AppendEnd(channel_->id_, id_, status);
  }
  if (last) taken = End(status);
  connection_.SendAppended(lock);
  return status.ok();
}

bool ServerCall::Close(const Status& status) {
  std::shared_ptr<ServerCall> taken;
  CallHost::Lock lock(connection_.mutex());
  if (ended_) return false;
  connection_.AppendEnd(channel_->id_, id_, status);
  taken = End(status);
  connection_.SendAppended(lock);
  return true;
}

std::optional<Status> ServerCall::FinalStatus() const {
  CallHost::Lock lock(connection_.mutex());
  return final_status_;
}

void ServerCall::SetOnClose(std::function<void(const Status&)> hook) {
  CallHost::Lock lock(connection_.mutex());
  on_close_ = std::move(hook);
  report_end_ = true;
  if (ended_) connection_.ReportEnd(Self(), *final_status_);
}

void ServerCall::SetOnWritable(std::function<void()> hook) {
  CallHost::Lock lock(connection_.mutex());
  if (ended_) return;
  on_writable_.swap(hook);
  report_end_ = true;
}

void ServerCall::HandleDropped() {
  if (ended_) return;
  std::shared_ptr<ServerCall> taken;
  CallHost::Lock lock(connection_.mutex());
  if (ended_) return;
  if (dispatching_) {
    forgotten_ = true;
    return;
  }
  taken = End(Status(StatusCode::kCancelled, "dropped without an answer"));
}

void ServerCall::Dispatched() {
  if (ended_) return;
  std::shared_ptr<ServerCall> taken;
  CallHost::Lock lock(connection_.mutex());
  dispatching_ = false;
  if (forgotten_ && !ended_) taken = End(Status(StatusCode::kCancelled, "dropped without an answer"));
}

void ServerCall::AttachRequests(std::unique_ptr<server::RequestSink> sink, const char* data, size_t size,
                                bool last) {
  sink_ = std::move(sink);
  {
    CallHost::Lock lock(connection_.mutex());
    if (sink_) {
      report_end_ = true;
      if (ended_) {
        connection_.ReportEnd(Self(), *final_status_);
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

void ServerCall::ReceiveEnd(const Status& status) {
  std::function<void(const Status&)> hook;
  std::function<void()> unused;  // it usually holds the call's handle, and with it itself
  {
    CallHost::Lock lock(connection_.mutex());
    hook.swap(on_close_);
    unused.swap(on_writable_);
  }
  if (const auto sink = std::move(sink_)) sink->End(status.ok() ? Status(StatusCode::kCancelled) : status);
  if (hook) hook(status);
}

void ServerCall::RoomAgain() {
  std::function<void()> hook;
  {
    CallHost::Lock lock(connection_.mutex());
    write_refused_ = false;
    if (!ended_) hook = on_writable_;
  }
  if (hook) hook();
}

std::shared_ptr<ServerCall> ServerCall::End(const Status& status) {
  MarkEnded(status);
  return channel_->calls_.Take(id_);
}

void ServerCall::MarkEnded(const Status& status) {
  ended_ = true;
  final_status_ = status;
  connection_.RemoveCall(*this);
  if (report_end_) connection_.ReportEnd(Self(), status);
}

std::shared_ptr<CallState> ServerCall::Expire() { return End(Status(StatusCode::kDeadlineExceeded)); }

std::shared_ptr<ServerCall> ServerCall::Self() {
  return std::static_pointer_cast<ServerCall>(shared_from_this());
}

}  // namespace zem::rpc
