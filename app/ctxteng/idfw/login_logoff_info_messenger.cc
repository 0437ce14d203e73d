#include "app/ctxteng/idfw/login_logoff_info_messenger.h"

#include <google/protobuf/arena.h>

#include <charconv>
#include <chrono>
#include <new>
#include <stdexcept>
#include <utility>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/channel/payload_types.h"
#include "app/ctxteng/idfw/login_logoff_event.h"
#include "app/ctxteng/idfw/login_logoff_info_cache.h"
#include "app/ctxteng/idfw/login_logoff_signal.h"
#include "framework/log/log.h"
#include "proto/context/idfw.pb.h"

namespace Ctxt {
namespace {

using orlane::zem::context::idfw::LoginLogoffEventAckMsg;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr const char* kMsgType = "com.orlane.zem.context";
constexpr const char* kAppId = "8888";
constexpr const char* kAppType = "IDFW-Vertical";
constexpr size_t kMostNameless = 1000;
// A frame to the manager has at most 16 MiB, and a batch that is above would fail at every try.  What an
// event has beside its names is estimated, generously.
constexpr size_t kMostBytes = size_t{8} << 20;
constexpr size_t kEventFrame = 256;
constexpr size_t kFirstBlock = 4096;
constexpr size_t kLargestBlock = 65536;

// Throws when the text is anything but a decimal number.
uint64_t NumberOf(const std::string& text) {
  uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [last, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || last != end) throw std::invalid_argument("not a number: " + text);
  return number;
}

}  // namespace

LoginLogoffInfoMessenger::LoginLogoffInfoMessenger(CtxtChannel& channel, uint32_t ack_timeout,
                                                   std::shared_ptr<LoginLogoffSignal> signal)
    : channel_(channel), ack_timeout_(ack_timeout), signal_(std::move(signal)) {}

LoginLogoffInfoMessenger::~LoginLogoffInfoMessenger() = default;

void LoginLogoffInfoMessenger::Connect() {
  // The channel keeps the callback for as long as it runs.
  channel_.RegisterClient(kAppId, kAppType,
                          [weak = weak_from_this()](const std::shared_ptr<CtxtMsg>& message) {
                            if (const auto self = weak.lock()) self->Receive(*message);
                          });
  ZLOG_INFO("Idfw: Successfully registered AppId: %s, AppType: %s with CtxtChannel", kAppId, kAppType);
}

void LoginLogoffInfoMessenger::Disconnect() { ZLOG_INFO("Idfw: Disconnect Messenger"); }

// --- Batches.

bool LoginLogoffInfoMessenger::SendNext(LoginLogoffInfoCache& cache, bool retry_pending) {
  if (pending_msg_ == nullptr || !retry_pending) TakeBatch(cache);
  while (pending_msg_ != nullptr) {
    if (!Send()) return false;
    pending_msg_.reset();
    pending_event_msg_.reset();
    if (more_) TakeBatch(cache);
  }
  return true;
}

void LoginLogoffInfoMessenger::TakeBatch(LoginLogoffInfoCache& cache) {
  auto events = Drain(cache);
  if (events->login_logoff_event_size() == 0) return;
  if (pending_msg_ != nullptr) {
    const int lost = pending_event_msg_->login_logoff_event_size();
    replaced_ += static_cast<uint64_t>(lost);
    ZLOG_WARN("Idfw: The cache is full, %d events of the batch %s are dropped", lost,
              pending_msg_->correlationId.c_str());
  }
  pending_msg_ = MakeMessage(events);
  pending_event_msg_ = std::move(events);
}

std::shared_ptr<LoginLogoffInfoMessenger::EventMsg> LoginLogoffInfoMessenger::Drain(
    LoginLogoffInfoCache& cache) {
  // A batch is many small messages: they are made in one piece of memory and go with it.
  google::protobuf::ArenaOptions options;
  options.start_block_size = kFirstBlock;
  options.max_block_size = kLargestBlock;
  const auto arena = std::make_shared<google::protobuf::Arena>(options);
  std::shared_ptr<EventMsg> events(arena, google::protobuf::Arena::CreateMessage<EventMsg>(arena.get()));
  size_t bytes = 0;
  cache.ConsumeAll([&](const LoginLogoffInfo& info) {
    if (!FillLoginLogoffEvent(info, events->add_login_logoff_event()) && nameless_.size() < kMostNameless &&
        nameless_.insert(info.vcUuid + ' ' + info.biosUuid).second)
      ZLOG_WARN("Idfw: The guest %s with bios uuid %s has no uuid, the manager gets 0 for it",
                info.vcUuid.c_str(), info.biosUuid.c_str());
    bytes += kEventFrame + info.sid.size() + info.userName.size() + info.domainName.size();
    return bytes < kMostBytes;
  });
  more_ = bytes >= kMostBytes;
  return events;
}

std::shared_ptr<CtxtMsg> LoginLogoffInfoMessenger::MakeMessage(const std::shared_ptr<EventMsg>& events) {
  auto message = std::make_shared<CtxtMsg>();
  message->msgType = kMsgType;
  message->appId = kAppId;
  message->appType = kAppType;
  message->payloadType = kLoginLogoffEventMsg;
  message->payload = events;
  message->payloadLen = events->ByteSizeLong();
  message->correlationId = std::to_string(next_correlation_id_++);
  ZLOG_INFO("Idfw: Size of login/logoff events will be sent %d", static_cast<int>(message->payloadLen));
  return message;
}

bool LoginLogoffInfoMessenger::Send() {
  {
    std::lock_guard lock(signal_->mutex);
    ack_handler_ = nullptr;
  }
  int status = -1;
  try {
    status = channel_.SendMsg(*pending_msg_, true);
  } catch (const std::exception& error) {
    ZLOG_WARN("Idfw: %s", error.what());
  }
  if (status != 0) {
    ZLOG_CTX_ERROR(574, "Idfw: Failed to send login/logoff message to ZEM manager");
    return false;
  }
  AckHandler check;
  {
    std::unique_lock lock(signal_->mutex);
    signal_->changed.WaitFor(lock, std::chrono::seconds(ack_timeout_),
                             [this] { return ack_handler_ != nullptr || signal_->stopped; });
    check = std::exchange(ack_handler_, nullptr);
  }
  if (check == nullptr) {
    ZLOG_WARN("Idfw: Ack from MP IDFW-Vertical timed out");
    return false;
  }
  if (!check()) {
    ZLOG_CTX_ERROR(572, "Idfw: Sent login/logoff message to ZEM manager, but failed to receive ack");
    return false;
  }
  ZLOG_INFO("Idfw: Sent login/logoff message to ZEM Manager successfully");
  return true;
}

// --- Acknowledgements.

void LoginLogoffInfoMessenger::Receive(const CtxtMsg& message) {
  ZLOG_INFO("Idfw: Received Session start message of type %s", message.payloadType.c_str());
  if (message.payloadType != kLoginLogoffEventAckMsg) {
    ZLOG_CTX_ERROR(153, "Idfw: Invalid payload type: %s, ignoring", message.payloadType.c_str());
    return;
  }
  // Null when the bytes could not be read, which the channel has logged.
  const auto* const ack = dynamic_cast<const LoginLogoffEventAckMsg*>(message.payload.get());
  if (ack == nullptr) return;
  ZLOG_INFO("Idfw: Received IDFW-Vertical ACK status_code %d, error_msg %s", ack->status_code(),
            ack->error_msg().c_str());
  std::lock_guard lock(signal_->mutex);
  ack_handler_ = [this, id = message.correlationId, status = ack->status_code(), error = ack->error_msg()] {
    return Check(id, status, error);
  };
  signal_->changed.NotifyAll();
}

bool LoginLogoffInfoMessenger::Check(const std::string& correlation_id, int32_t status,
                                     const std::string& error) const {
  try {
    const uint64_t id = NumberOf(correlation_id);
    ZLOG_INFO("Idfw: ACK corrId from IDFW-Vertical is: %lu", id);
    if (id != next_correlation_id_ - 1) {
      ZLOG_CTX_ERROR(575, "Idfw: The ackMsg correlation ID does not match");
      return false;
    }
    ZLOG_INFO("Idfw: ackMsg status code from IDFW-Vertical is %d", status);
    if (status == 0) {
      ZLOG_INFO("Idfw: Received IDFW-Vertical ack msg from MP");
      return true;
    }
    if (!error.empty()) ZLOG_WARN("Idfw: error_msg from IDFW-Vertical is: %s", error.c_str());
    return false;
  } catch (const CtxtMemoryAllocationError& failure) {
    ZLOG_CTX_ERROR(1054, "Idfw: Failed to allocate memory, %s", failure.what());
  } catch (const std::bad_alloc&) {
    ZLOG_CTX_ERROR(1054, "Idfw: Failed to allocate memory, received a bad_alloc exception");
  } catch (...) {
    ZLOG_ERROR("ERR_CTXT_PROCESS_LOGINLOGOFF_ACK_MSG",
               "Idfw: Unhandled exception occurred while processing ack from MP");
  }
  return false;
}

}  // namespace Ctxt
