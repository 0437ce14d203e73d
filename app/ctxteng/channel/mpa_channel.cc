#include "app/ctxteng/channel/mpa_channel.h"

#include <mutex>
#include <new>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/channel/payload_types.h"
#include "framework/log/log.h"
#include "mpaclient/client_registry.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/uuid.h"

namespace Ctxt {
namespace {

using zem::BusHeader;
using zem::BusMessageTypeName;
using zem::BusRecord;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

// What every vertical registers with.
constexpr uint32_t kClientType = 1;
constexpr uint16_t kPort = 9002;
constexpr uint64_t kAckTimeoutUs = 30000000;
constexpr uint64_t kRetryTimeoutUs = 5000000;

constexpr size_t kMostCorrelationId = 128;
constexpr const char* kMsgType = "com.orlane.zem.context";

bool NeedsNoCorrelationId(const std::string& app_type) {
  return app_type == "ZEM-IntrusionServices" || app_type == "ZEM-IdsPcapService";
}

bool GoesOn(int32_t type) {
  return type == zem::kRmqMpRpcRequest || type == zem::kRmqMpRpcResponse ||
         type == zem::kRmqClientRpcResponse || type == zem::kRmqClientPublish;
}

void LogHeader(const rmqClientMessage& message, const BusHeader& header) {
  ZLOG_DEBUG("\tRouting key : %s \n", message.routing_key != nullptr ? message.routing_key : "");
  ZLOG_DEBUG("\tContent type: %s \n", message.content_type != nullptr ? message.content_type : "");
  ZLOG_DEBUG("\tPayload len : %ld\n", static_cast<long>(message.payload_len));
  if (message.payload != nullptr) ZLOG_DEBUG("\tHas Payload");
  const auto log = [](const char* found, const char* key, const std::string& value) {
    if (value.empty()) return;
    ZLOG_DEBUG("\t\tkey: %s, value: %s", key, value.c_str());
    ZLOG_DEBUG(found, key, value.c_str());
  };
  log("\t\tPayload type key: %s, value: %s", "__TypeId__", header.type_id);
  log("\t\tCorrelation id: %s, value: %s", "amqp_correlationId", header.correlation_id);
  log("\t\tRMQ reply to: %s, value: %s", "amqp_replyTo", header.reply_to);
}

}  // namespace

MpaChannel& MpaChannel::GetInstance() {
  static MpaChannel& channel = *new MpaChannel();
  return channel;
}

MpaChannel::MpaChannel() = default;
MpaChannel::~MpaChannel() = default;

void MpaChannel::Start() {
  if (thread_.joinable()) return;
  stopping_ = false;
  thread_ = zem::NativeThread({.name = "ctxt:receive"}, [this] { Deliver(); });
  ZLOG_INFO("MpaChannel: Started RMQ msg receiving thread");
}

void MpaChannel::RegisterClient(const std::string& app_id, const std::string& app_type, Callback callback,
                                int /*cookie*/, zem::AsioZemProvider& provider) {
  if (!zem::ClientRegistry::Register(
          provider, [this](rmqClientMessage* message) { Receive(*message); }, app_type, app_id, kClientType,
          kPort, kAckTimeoutUs, kRetryTimeoutUs)) {
    throw CtxtChannelError("RMQ client already registered");
  }
  const auto stub = zem::ClientRegistry::Get(app_type);
  ZLOG_INFO("Host Registration for appId %s, appType %s MpaClientStub %p", app_id.c_str(), app_type.c_str(),
            static_cast<const void*>(stub.get()));
  // The entry goes in first: an answer may come before the start returns.
  bool replaced = false;
  try {
    ClientInfo info{app_id, app_type, std::move(callback), true, stub};
    const std::unique_lock lock(clients_lock_);
    // A stop has looked at the clients already: it would wait for the close of this one for ever.
    if (stopping_) throw CtxtChannelError("RMQ client came during the stop");
    replaced = !clients_.insert_or_assign(app_type, std::move(info)).second;
  } catch (const std::bad_alloc&) {
    zem::ClientRegistry::Unregister(app_type);
    throw CtxtMemoryAllocationError("ClientInfo", 48);
  } catch (...) {
    zem::ClientRegistry::Unregister(app_type);
    throw;
  }
  if (replaced)
    ZLOG_INFO("MpaChannel: Resetting existing entry with appType: %s, appId: %s in the map", app_type.c_str(),
              app_id.c_str());
  try {
    stub->Start(nullptr);
  } catch (...) {
    {
      const std::unique_lock lock(clients_lock_);
      clients_.erase(app_type);
    }
    zem::ClientRegistry::Unregister(app_type);
    throw;
  }
  ZLOG_INFO("MpaChannel: Connected to MPA, appID: %s, appType: %s client stub %p", app_id.c_str(),
            app_type.c_str(), static_cast<const void*>(stub.get()));
}

std::string MpaChannel::CorrelationIdOf(const CtxtMsg& message) const {
  std::string id;
  if (message.payloadType == kLoginLogoffEventMsg) {
    id = message.correlationId;
    ZLOG_INFO("MpaChannel: Idfw LoginLogoffEventMsg correlation id = %s", id.c_str());
  } else {
    id = zem::RandomUuidText();
    if (message.payloadType == kHealthStatusMsg)
      ZLOG_INFO("MpaChannel: Generated corelation Id is: %s for CtxtHealth msg", id.c_str());
  }
  if (id.size() > kMostCorrelationId) {
    ZLOG_WARN("MpaChannel: uuid gen string size is %zu, len %u", id.size(),
              static_cast<unsigned>(kMostCorrelationId));
    id.resize(kMostCorrelationId);
  }
  return id;
}

int MpaChannel::SendMsg(const CtxtMsg& message, int32_t message_type, const std::string& app_type) {
  auto payload = SerializePayload(message);
  if (!payload) throw CtxtProtobufError("Failed to serialize payload in SendMsg");
  BusHeader header;
  header.correlation_id = CorrelationIdOf(message);
  header.type_id = message.payloadType;
  header.msg_class = message.msgType;
  ZLOG_INFO("MpaChannel: Sending %s message with appType [%s] corelation id [%s]",
            BusMessageTypeName(message_type), app_type.c_str(), header.correlation_id.c_str());
  std::shared_ptr<zem::MpaClient> stub;
  {
    const std::shared_lock lock(clients_lock_);
    if (const auto found = clients_.find(app_type); found != clients_.end()) stub = found->second.stub;
  }
  int result = zem::kBusNoSession;
  if (stub != nullptr) {
    BusRecord record(static_cast<zem::BusMessageType>(message_type));
    record.SetApp(app_type, message.appId)
        .SetCookie(stub->cookie())
        .SetHeader(header)
        .SetContentType(zem::kProtobufContent)
        .SetPayload(std::move(*payload));
    rmqClientMessage raw = record.message();
    result = stub->SendMessage(&raw);
  }
  if (result < 0)
    ZLOG_CTX_ERROR(251, "MpaChannel: Failed to send msg to rmqClient, appType: %s, ret: %d", app_type.c_str(),
                   result);
  return result;
}

void MpaChannel::Receive(const rmqClientMessage& message) {
  const char* const type = BusMessageTypeName(message.msg_type);
  const std::string app_type = message.app_type != nullptr ? message.app_type : "";
  ZLOG_INFO("MpaChannel: Recvd %s msg in callback, cookie : %d, app type %s\n", type, message.cookie,
            app_type.c_str());
  if (message.msg_type == zem::kRmqClientClose) {
    ZLOG_INFO("MpaChannel: Close message ignored for appType %s", app_type.c_str());
    return;
  }
  if (message.msg_type == zem::kRmqClientRegistrationAck) {
    ZLOG_INFO("MpaChannel: RMQ_CLIENT_REGISTRATION_ACK message ignored for appType %s", app_type.c_str());
    return;
  }
  const BusHeader header = BusHeader::Of(message).value_or(BusHeader());
  LogHeader(message, header);
  if (header.type_id.empty()) {
    ZLOG_CTX_ERROR(153, "MpaChannel: RMQ_PAYLOAD_TYPE is set as NULL, dropping msg");
    return;
  }
  if (header.correlation_id.empty() && !NeedsNoCorrelationId(app_type)) {
    ZLOG_CTX_ERROR(261, "MpaChannel: RMQ_CORRELATIONID is set as NULL, dropping msg");
    return;
  }
  if (message.msg_type == zem::kRmqClientRpcRequest && header.reply_to.empty()) {
    ZLOG_CTX_ERROR(262, "MpaChannel: RMQ_REPLY_TO is set as NULL, dropping request msg");
    return;
  }
  if (!GoesOn(message.msg_type)) {
    ZLOG_CTX_ERROR(264, "MpaChannel: Recvd %s msg in callback, dropping msg", type);
    return;
  }
  try {
    if (!queue_.Push(std::make_shared<const BusRecord>(BusRecord::Copy(message)))) return;
  } catch (const std::bad_alloc&) {
    ZLOG_CTX_ERROR(1054, "MpaChannel: Failed to allocate memory for payload, ignoring msg");
    return;
  }
  ZLOG_INFO("MpaChannel: Pushed message for app type %s", app_type.c_str());
}

void MpaChannel::Deliver() {
  const zem::LoopThread loop("ctxt:receive", zem::LoopKind::kWorker);
  size_t released = 0;
  // A stop is over when every client has been closed and what they had sent is out of the queue.
  const auto ended = [this] { return stopping_ && !AnyConnected(); };
  while (const auto record = queue_.Pop(ended)) {
    const zem::LoopStep step("message");
    const rmqClientMessage message = record->message();
    const std::string app_type = message.app_type != nullptr ? message.app_type : "";
    ZLOG_DEBUG("MpaChannel: Dequeued %s msg, app type: %s\n", BusMessageTypeName(message.msg_type),
               app_type.c_str());
    if (message.msg_type == zem::kRmqClientClose) {
      TakeClose(app_type);
    } else if (stopping_) {
      // The client it is for is shut down.
      ++released;
    } else if (message.msg_type == zem::kRmqMpRpcRequest || message.msg_type == zem::kRmqMpRpcResponse ||
               message.msg_type == zem::kRmqClientPublish) {
      // Nothing that one message does may end the thread, and the process with it.
      try {
        Process(*record);
      } catch (const std::exception& error) {
        ZLOG_WARN("MpaChannel: The message for %s is lost: %s", app_type.c_str(), error.what());
      } catch (...) {
        ZLOG_WARN("MpaChannel: The message for %s is lost", app_type.c_str());
      }
    } else {
      ZLOG_INFO("MpaChannel: Not processing message type: %d", message.msg_type);
    }
  }
  if (released > 0) ZLOG_INFO("MpaChannel: Released %zu messages that came during the stop", released);
  ZLOG_INFO("MpaChannel: Ending RMQ msg handling thread.");
}

void MpaChannel::TakeClose(const std::string& app_type) {
  ZLOG_INFO("MpaChannel: Received close message to stop message receiving thread.");
  {
    const std::unique_lock lock(clients_lock_);
    if (const auto found = clients_.find(app_type); found != clients_.end()) found->second.connected = false;
  }
  if (!stopping_)
    ZLOG_INFO("MpaChannel: System is still running, RMQ_CLIENT_CLOSE for client %s ignored",
              app_type.c_str());
}

void MpaChannel::Process(const BusRecord& record) {
  const rmqClientMessage raw = record.message();
  ZLOG_INFO("MpaChannel: Processing received RMQ %s msg", BusMessageTypeName(raw.msg_type));
  ClientInfo client;
  {
    const std::shared_lock lock(clients_lock_);
    const auto found = clients_.find(raw.app_type != nullptr ? raw.app_type : "");
    if (found == clients_.end()) return;
    client = found->second;
  }
  const BusHeader header = BusHeader::Of(raw).value_or(BusHeader());
  auto message = std::make_shared<CtxtMsg>();
  message->msgType = kMsgType;
  message->appId = client.app_id;
  message->appType = client.app_type;
  message->payloadType = header.type_id;
  message->payloadLen = record.payload().size();
  message->correlationId = header.correlation_id;
  message->replyTo = header.reply_to;
  ZLOG_INFO(
      "MpaChannel: Create new ctxt msg, msgType: %s, appId: %s, appType: %s, payloadType: %s,payloadLen: "
      "%ld, "
      "correlation id: %s, replyTo: %s",
      message->msgType.c_str(), message->appId.c_str(), message->appType.c_str(),
      message->payloadType.c_str(), static_cast<long>(message->payloadLen), message->correlationId.c_str(),
      message->replyTo.c_str());
  message->payload = DeserializePayload(message->payloadType, record.payload());
  client.callback(message, client.app_id);
}

bool MpaChannel::AnyConnected() const {
  const std::shared_lock lock(clients_lock_);
  for (const auto& [app_type, client] : clients_) {
    if (client.connected) return true;
  }
  return false;
}

std::vector<MpaChannel::ClientInfo> MpaChannel::Clients() const {
  const std::shared_lock lock(clients_lock_);
  std::vector<ClientInfo> clients;
  for (const auto& [app_type, client] : clients_) clients.push_back(client);
  return clients;
}

void MpaChannel::Stop() {
  stopping_ = true;
  for (const ClientInfo& client : Clients()) {
    if (!client.connected) {
      ZLOG_INFO("MpaChannel: Already disconnected from MPA");
      continue;
    }
    client.stub->Stop();
    zem::ClientRegistry::Unregister(client.app_type);
    ZLOG_INFO("MpaChannel: Client %s connection closed", client.app_id.c_str());
    BusRecord close(zem::kRmqClientClose);
    close.SetApp(client.app_type, client.app_id);
    queue_.PushLocal(std::make_shared<const BusRecord>(std::move(close)));
    ZLOG_INFO("MpaChannel: Added RMQ close msg to queue for client with appType = %s",
              client.app_type.c_str());
  }
  queue_.Wake();
  if (thread_.joinable()) thread_.Join();
  ZLOG_INFO("MpaChannel: Stopped RMQ msg receiving thread");
  {
    const std::unique_lock lock(clients_lock_);
    ZLOG_INFO("MpaChannel: Clearing ClientInfoMap. No of connections: %zu", clients_.size());
    clients_.clear();
  }
  ZLOG_INFO("MpaChannel: ClientMap cleared successfully");
  ZLOG_INFO("MpaChannel: Disconnected from MPA.");
}

}  // namespace Ctxt
