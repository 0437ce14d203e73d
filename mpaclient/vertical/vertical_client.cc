#include "mpaclient/vertical/vertical_client.h"

#include <algorithm>
#include <mutex>

#include "mpaclient/client_registry.h"
#include "platform/core/condition.h"
#include "platform/core/uuid.h"

namespace zem {
namespace {

constexpr uint32_t kClientType = 1;
constexpr uint16_t kPort = 9002;
constexpr uint64_t kAckTimeoutUs = 30'000'000;

constexpr const char* kSendOperation = "SendMsg";

std::string TypeName(int32_t type) {
  std::string name = BusMessageTypeName(type);
  if (name.rfind("UNKNOWN", 0) == 0) name += " " + std::to_string(type);
  return name;
}

}  // namespace

/// The receiving side; the manager client may still hold it when the vertical's client has gone.
class VerticalClient::Receiver {
 public:
  Receiver(const Vertical& vertical, Callbacks callbacks)
      : vertical_(vertical), callbacks_(std::move(callbacks)) {}

  void Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
  }

  void Close() {
    std::unique_lock lock(mutex_);
    open_ = false;
    idle_.Wait(lock, [this] { return running_ == 0; });
  }

  void Receive(const rmqClientMessage& message) {
    {
      const std::lock_guard lock(mutex_);
      if (!open_) return;
      ++running_;
    }
    const Running running{*this};
    Dispatch({message, BusHeader::Of(message).value_or(BusHeader())});
  }

 private:
  /// Counts a running callback until it returns or throws.
  struct Running {
    Receiver& receiver;
    ~Running() {
      const std::lock_guard lock(receiver.mutex_);
      if (--receiver.running_ == 0) receiver.idle_.NotifyAll();
    }
  };

  void Dispatch(const VerticalRecord& record) {
    const LogSource& log = vertical_.records.log;
    if (callbacks_.intercept && callbacks_.intercept(record)) return;
    switch (record.type()) {
      case kRmqClientClose:
        if (callbacks_.closed) callbacks_.closed();
        LogClose(record.raw.cookie);
        return;
      case kRmqClientRegistrationAck:
        ZLOG_TO(log, kLogInfo,
                "Received client registration ACK from MPA, sending/receiving messages is enabled using "
                "cookie [%d]",
                record.raw.cookie);
        if (callbacks_.opened) callbacks_.opened(record.raw.mp_major_version, record.raw.mp_minor_version);
        return;
      case kRmqClientPayload:
      case kRmqMpRpcRequest:
      case kRmqMpRpcResponse:
      case kRmqClientRpcResponse:
      case kRmqMpPublish:
        if (callbacks_.payload) callbacks_.payload(record);
        return;
      default:
        ZLOG_ERROR_TO(log, "41520",
                      "[%s] Unrecognized RMQ messageType [%s] from MPA. Disconnect from mpa due to "
                      "unrecognized message, cookieId [%d]",
                      name(), TypeName(record.type()).c_str(), record.raw.cookie);
    }
  }

  void LogClose(int32_t closed) const {
    const LogSource& log = vertical_.records.log;
    const auto client = ClientRegistry::Get(vertical_.name);
    const int32_t cookie = client ? client->cookie() : -1;
    if (closed == cookie) {
      ZLOG_TO(log, kLogInfo, "[%s] Got CLIENT CLOSE Message for cookie:[%d], disconnected from MPA\n", name(),
              cookie);
    } else {
      ZLOG_ERROR_TO(log, "41516", "[%s] Message's cookieId [%d] does not match with [%d], ignored\n", name(),
                    closed, cookie);
    }
  }

  const char* name() const {
    return vertical_.records.receiver != nullptr ? vertical_.records.receiver : vertical_.name;
  }

  const Vertical& vertical_;
  const Callbacks callbacks_;
  std::mutex mutex_;  // guards the two below
  bool open_ = false;
  int running_ = 0;
  Condition idle_;
};

VerticalClient::VerticalClient(AsioZemProvider& provider, const Vertical& vertical, Callbacks callbacks)
    : provider_(provider),
      vertical_(vertical),
      receiver_(std::make_shared<Receiver>(vertical, std::move(callbacks))) {}

VerticalClient::~VerticalClient() { Stop(); }

std::shared_ptr<MpaClient> VerticalClient::client() const { return ClientRegistry::Get(vertical_.name); }

void VerticalClient::Register() {
  receiver_->Open();
  owns_registration_ = ClientRegistry::Register(
      provider_, [receiver = receiver_](rmqClientMessage* message) { receiver->Receive(*message); },
      vertical_.name, vertical_.app_id, kClientType, kPort, kAckTimeoutUs,
      static_cast<uint64_t>(vertical_.traits.bus_retry.count()));
  asked_ = true;
}

void VerticalClient::Start() {
  if (!asked_) Register();
  if (const auto stub = client()) stub->Start(nullptr);
}

void VerticalClient::Stop() {
  asked_ = false;
  if (!std::exchange(owns_registration_, false)) return;
  if (const auto stub = client()) stub->Stop();
  ClientRegistry::Unregister(vertical_.name);
  receiver_->Close();
}

bool VerticalClient::connected() const {
  const auto stub = client();
  return stub != nullptr && stub->IsConnected();
}

std::map<std::string, bool> VerticalClient::Aphs() const {
  const auto stub = client();
  return stub != nullptr ? stub->Aphs() : std::map<std::string, bool>();
}

std::optional<std::string> VerticalClient::Send(const std::string& type, std::string payload,
                                                const std::string& correlation_id,
                                                const std::string& reply_to) {
  Sent result = Sent::kNotConnected;
  std::optional<Outgoing> message;
  if (connected()) {
    message = Prepare(type, std::move(payload), correlation_id, reply_to);
    result = message ? SendPrepared(*message) : Sent::kUnknownType;
  }
  if (result == Sent::kSent) return std::move(message->message_id);
  LogNotSent(result, type);
  return std::nullopt;
}

std::optional<VerticalClient::Outgoing> VerticalClient::Prepare(const std::string& type, std::string payload,
                                                                const std::string& correlation_id,
                                                                const std::string& reply_to) const {
  const auto& types = vertical_.records.sent;
  const auto row = std::ranges::find(types, type, &SentType::type_name);
  if (row == types.end()) return std::nullopt;
  std::string id = correlation_id;
  if (row->correlation != nullptr) id = row->correlation;
  if (id.empty() && row->default_correlation != nullptr) id = row->default_correlation;
  return PrepareAs(row->record, type, std::move(payload), id, reply_to);
}

VerticalClient::Outgoing VerticalClient::PrepareAs(BusMessageType record, const std::string& type,
                                                   std::string payload, const std::string& correlation_id,
                                                   const std::string& reply_to) const {
  BusHeader header;
  header.type_id = type;
  header.correlation_id = correlation_id;
  if (vertical_.records.msg_class != nullptr) {
    header.msg_class = vertical_.records.msg_class;
    header.message_id = RandomUuidText();
  }
  if (vertical_.records.request_type != nullptr) header.request_type = vertical_.records.request_type;
  const auto stub = client();
  Outgoing message{BusRecord(record), type, header.message_id};
  message.record.SetApp(vertical_.name, vertical_.app_id)
      .SetCookie(stub != nullptr ? stub->cookie() : -1)
      .SetHeader(header)
      .SetContentType(kProtobufContent)
      .SetPayload(std::move(payload));
  if (record == kRmqClientRpcResponse && !reply_to.empty()) message.record.SetRoutingKey(reply_to);
  return message;
}

VerticalClient::Sent VerticalClient::SendPrepared(const Outgoing& message, const std::string& aph) const {
  const auto stub = client();
  if (stub == nullptr) return Sent::kNotConnected;
  rmqClientMessage record = message.record.message();
  MpaClient::SendFailure why = MpaClient::SendFailure::kNone;
  if (stub->SendMessageTo(&record, aph, &why) == 0) return Sent::kSent;
  return why == MpaClient::SendFailure::kNoRoad ? Sent::kNoRoad : Sent::kRefused;
}

int VerticalClient::ResultOf(Sent result) {
  if (result == Sent::kSent) return 0;
  return result == Sent::kNotConnected ? kBusNoSession : -1;
}

void VerticalClient::LogNotSent(Sent reason, const std::string& type) const {
  const LogSource& log = vertical_.records.log;
  switch (reason) {
    case Sent::kSent:
      return;
    case Sent::kNotConnected:
      ZLOG_ERROR_TO(log, "41518", "[%s] Not connected to MPA, dropped message to MPA\n", kSendOperation);
      return;
    case Sent::kUnknownType:
      ZLOG_ERROR_TO(log, "00104", "[%s] Unsupported message type %s to MPA\n", kSendOperation, type.c_str());
      return;
    case Sent::kNoRoad:
    case Sent::kRefused:
      ZLOG_ERROR_TO(log, "00103", "[%s] failed to send message (type:%s) to mpa\n", kSendOperation,
                    type.c_str());
  }
}

}  // namespace zem
