#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/rpc/link/call_host.h"
#include "platform/rpc/link/call_table.h"
#include "platform/rpc/server_call_state.h"
#include "platform/rpc/server_impl.h"

namespace zem::rpc {

class ServerCall;
class ServerParts;

/// A CALL as it was received, parsed except for its message.
struct ReceivedCall {
  uint32_t id = 0;
  uint16_t method = 0;
  uint32_t deadline_ms = 0;  // 0 is none
  std::string source_id;
  ServerCallState::Headers headers;
  const char* data = nullptr;  // of the first message; null for none
  size_t size = 0;
  bool last = false;
};

/// A channel that the peer opened to one of our services, with its calls.
///
/// Threads: what is named "Receive..." on the connection's strand, without its mutex; the rest under it.
class ServerChannel : public std::enable_shared_from_this<ServerChannel> {
 public:
  ServerChannel(std::shared_ptr<CallHost> connection, uint32_t id, std::string source, std::string target)
      : connection_(std::move(connection)), id_(id), source_(std::move(source)), target_(std::move(target)) {}

  CallHost& connection() const { return *connection_; }
  uint32_t id() const { return id_; }
  const std::string& source() const { return source_; }
  const std::string& target() const { return target_; }

  /// Calls go to `service` of `server`, whose stop closes the channel.
  void Serve(std::shared_ptr<ServiceBase> service, const ServerParts* server) {
    service_ = std::move(service);
    server_ = server;
  }
  bool belongs_to(const ServerParts* server) const { return server_ == server; }

  /// Returns false when the call's id is out of order.
  [[nodiscard]] bool ReceiveCall(ReceivedCall received);
  /// One message of a client's stream; `data` is null when there is none.
  void ReceiveMessage(uint32_t call_id, const char* data, size_t size, bool last);
  void ReceiveCancel(uint32_t call_id);

  /// What an end leaves to be destroyed after the mutex has been released.
  struct Remains {
    std::shared_ptr<ServiceBase> service;
    std::vector<std::shared_ptr<ServerCall>> calls;
  };
  /// Ends every call with "channel down" and `why`.
  [[nodiscard]] Remains End(const char* why);

 private:
  friend class ServerCall;

  const std::shared_ptr<CallHost> connection_;
  const uint32_t id_;
  const std::string source_;
  const std::string target_;
  const ServerParts* server_ = nullptr;  // compared only
  // Guarded by the connection's mutex:
  // Null when the channel has ended: a service may keep handles of its calls, and with them this channel.
  std::shared_ptr<ServiceBase> service_;
  uint32_t last_call_ = 0;
  CallTable<ServerCall> calls_;
};

/// A call from the server's side.
class ServerCall final : public ServerCallState, public RefusedWriter {
 public:
  ServerCall(std::shared_ptr<ServerChannel> channel, ReceivedCall* received);

  void Cancel() override;
  bool Write(const google::protobuf::MessageLite& message, bool last) override;
  bool Close(const Status& status) override;
  std::optional<Status> FinalStatus() const override;

  const std::string& target_id() const override { return channel_->target_; }
  const std::string& client_id() const override {
    return source_id_.empty() ? channel_->source_ : source_id_;
  }
  const Headers& headers() const override { return headers_; }
  TimePoint deadline() const override { return deadline_; }
  void SetOnClose(std::function<void(const Status&)> hook) override;
  void SetOnWritable(std::function<void()> hook) override;

  void SetSingleAnswer() override { single_answer_ = true; }
  void HandleDropped() override;
  void AttachRequests(std::unique_ptr<server::RequestSink> sink, const char* data, size_t size,
                      bool last) override;

 private:
  friend class ServerChannel;

  // One message of a client's stream; null for none.  On the strand.
  void ReceiveRequest(const char* data, size_t size, bool last);
  // The handler has returned.  On the strand.
  void Dispatched();
  // Reports the end to the sink and the close hook.  On the strand, after the call has ended.
  void ReceiveEnd(const Status& status) override;
  void RoomAgain() override;

  // Under the connection's mutex: the call ends and leaves the tables; the caller destroys what is returned
  // after releasing the mutex.
  [[nodiscard]] std::shared_ptr<ServerCall> End(const Status& status);
  void MarkEnded(const Status& status);
  std::shared_ptr<CallState> Expire() override;
  std::shared_ptr<ServerCall> Self();

  const std::shared_ptr<ServerChannel> channel_;
  CallHost& connection_;  // kept by the channel
  const uint32_t id_;
  bool single_answer_ = false;
  std::string source_id_;
  Headers headers_;
  std::unique_ptr<server::RequestSink> sink_;  // strand
  bool requests_done_ = false;                 // strand
  // Guarded by the connection's mutex:
  std::atomic<bool> ended_{false};  // written under the mutex; true for good
  bool dispatching_ = true;
  bool forgotten_ = false;
  bool report_end_ = false;  // there is a sink or a hook
  bool write_refused_ = false;
  std::optional<Status> final_status_;
  std::function<void(const Status&)> on_close_;
  std::function<void()> on_writable_;
};

}  // namespace zem::rpc
