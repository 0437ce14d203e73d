#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/rpc/call_state.h"
#include "platform/rpc/call_table.h"
#include "platform/rpc/server_impl.h"

namespace zem::rpc {

class ServerCall;
class ServerParts;
class ServiceBase;
class WireConnection;

/// A channel that the peer opened to one of our services.
struct ServerChannel {
  ServerChannel(std::shared_ptr<WireConnection> c, std::string s, std::string t)
      : connection(std::move(c)), source(std::move(s)), target(std::move(t)) {}

  const std::shared_ptr<WireConnection> connection;
  const std::string source;
  const std::string target;
  const ServerParts* server = nullptr;  // whose stop closes the channel; compared only
  // Guarded by the connection's mutex:
  // Null when the channel has ended: a service may keep handles of its calls, and with them this channel.
  std::shared_ptr<ServiceBase> service;
  uint32_t id = 0;
  uint32_t last_call = 0;
  CallTable<ServerCall> calls;
};

/// A call from the server's side.
class ServerCall final : public CallState {
 public:
  using Headers = std::vector<std::pair<std::string, std::string>>;

  ServerCall(std::shared_ptr<ServerChannel> channel, uint32_t id) : channel_(std::move(channel)), id_(id) {}

  void Cancel() override;
  bool Write(const google::protobuf::MessageLite& message, bool last) override;
  bool Close(const Status& status) override;
  std::optional<Status> FinalStatus() const override;

  const std::string& target_id() const { return channel_->target; }
  const std::string& client_id() const { return source_id_.empty() ? channel_->source : source_id_; }
  const Headers& headers() const { return headers_; }
  TimePoint deadline() const { return deadline_; }
  void SetOnClose(std::function<void(const Status&)> hook);
  void SetOnWritable(std::function<void()> hook);

  /// The first written message is the final one.
  void SetSingleAnswer() { single_answer_ = true; }
  /// The last handle is gone: without an answer until now there will be none.
  void HandleDropped();
  void AttachRequests(std::unique_ptr<server::RequestSink> sink, const char* data, size_t size, bool last);

 private:
  friend class WireConnection;

  // One message of a client's stream; null for none.  On the strand.
  void ReceiveRequest(const char* data, size_t size, bool last);
  // Tells the sink and the close hook.  On the strand, after the call has ended.
  void DeliverEnd();

  const std::shared_ptr<ServerChannel> channel_;
  const uint32_t id_;
  bool single_answer_ = false;
  std::string source_id_;
  Headers headers_;
  std::unique_ptr<server::RequestSink> sink_;  // strand
  bool requests_done_ = false;                 // strand
  // Guarded by the connection's mutex:
  std::atomic<bool> ended_{false};  // written under the mutex; true for good
  bool dispatching_ = false;
  bool forgotten_ = false;
  bool tell_end_ = false;  // there is a sink or a hook
  bool write_refused_ = false;
  std::optional<Status> final_status_;
  std::function<void(const Status&)> on_close_;
  std::function<void()> on_writable_;
};

}  // namespace zem::rpc
