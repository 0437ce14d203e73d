#include "app/ctxteng/health/ctxt_health.h"

#include <atomic>
#include <chrono>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/base/vm_data.h"
#include "framework/log/log.h"
#include "platform/core/clock.h"
#include "platform/core/loop_monitor.h"
#include "proto/context/ouvi.pb.h"

namespace Ctxt {
namespace {

using orlane::zem::context::HealthStatusAckMsg;
using orlane::zem::context::HealthStatusMsg;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr const char* kAppId = "7777";
constexpr const char* kAppType = "Context-Health";
constexpr const char* kMsgType = "com.orlane.zem.context";
constexpr const char* kPayloadType = "com.orlane.zem.context.HealthStatusMsg";
constexpr const char* kAckType = "com.orlane.zem.context.HealthStatusAckMsg";

constexpr uint32_t kMuxDisconnected = 12;
constexpr zem::Duration kStatisticsInterval = std::chrono::seconds(60);
constexpr int kSilentSeconds = 60;

std::atomic<bool> exists = false;

int64_t WallSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(zem::Clock::Process().WallNow().time_since_epoch())
      .count();
}

uint64_t WallMilliseconds() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   zem::Clock::Process().WallNow().time_since_epoch())
                                   .count());
}

void OnAck(const CtxtMsg& message) {
  if (message.payloadType != kAckType) {
    ZLOG_ERROR("ERR_CTXT_RMQ_INVALID_PAYLOAD_TYPE", "CtxtHealth: Invalid payload type: %s, ignoring",
               message.payloadType.c_str());
    return;
  }
  ZLOG_INFO("CtxtHealth: Received %s message", message.payloadType.c_str());
  // Null when the bytes could not be read, which the channel has logged.
  const auto* const ack = dynamic_cast<const HealthStatusAckMsg*>(message.payload.get());
  if (ack == nullptr) return;
  if (ack->status() != 0) {
    ZLOG_CTX_ERROR(307, "CtxtHealth: Received error health ack msg from MP, status: %d, error msg: %s",
                   static_cast<int>(ack->status()), ack->error_msg().c_str());
  } else {
    ZLOG_INFO("CtxtHealth: Received health ack msg from MP");
  }
}

void OnMessage(const std::shared_ptr<CtxtMsg>& message) {
  try {
    if (message != nullptr) OnAck(*message);
  } catch (const CtxtMemoryAllocationError& error) {
    ZLOG_CTX_ERROR(1054, "CtxtHealth: Failed to allocate memory, %s", error.what());
  } catch (const std::bad_alloc&) {
    ZLOG_CTX_ERROR(1054, "CtxtHealth: Failed to allocate memory, bad_alloc exception");
  } catch (...) {
    ZLOG_CTX_ERROR(301, "CtxtHealth: Unhandled exception occured while processing health ack message");
  }
}

}  // namespace

CtxtHealth& CtxtHealth::GetInstance() {
  // Never destroyed: its thread looks at the guests, which go earlier.
  static auto* const instance = new CtxtHealth();
  return *instance;
}

CtxtHealth::CtxtHealth() {
  if (exists.exchange(true)) throw std::logic_error("Instance already exists");
}

CtxtHealth::~CtxtHealth() {
  Shutdown();
  exists = false;
}

void CtxtHealth::Initialize(Settings settings) {
  settings_ = std::move(settings);
  if (settings_.applies) {
    ZLOG_INFO("CtxtHealth: si Initializing for AppId: %s, AppType: %s with CtxtChannel", kAppId, kAppType);
    settings_.register_client(kAppId, kAppType, &OnMessage);
    ZLOG_INFO("CtxtHealth: Successfully registered AppId: %s, AppType: %s with CtxtChannel", kAppId,
              kAppType);
  } else {
    ZLOG_INFO("CtxtHealth: Not initializing for AppId: %s, AppType: %s with CtxtChannel", kAppId, kAppType);
  }
  ZLOG_INFO("Initializing the Context Engine Health Stats Thread");
  stop_.Reset();
  try {
    zem::NativeThread::Options options;
    options.name = "ctxt:health";
    statistics_ = zem::NativeThread(std::move(options), [this] {
      const zem::LoopThread loop("ctxt:health", zem::LoopKind::kWorker);
      do LogStatistics();
      while (!stop_.WaitFor(kStatisticsInterval));
      ZLOG_INFO("ContextHealthStatsThread interrupted, exiting");
    });
  } catch (const std::system_error& error) {
    throw CtxtBoostThreadResourceError(error.what());
  }
}

void CtxtHealth::Shutdown() {
  if (!statistics_.joinable()) return;
  ZLOG_INFO("CtxtHealth: Shutting down health stats thread");
  stop_.Stop();
  statistics_.Join();
}

void CtxtHealth::LogStatistics() {
  const zem::LoopStep step("statistics");
  std::string line = "CtxtHealth: Stats: ";
  const int64_t now = WallSeconds();
  for (const auto& [vc_uuid, guest] : settings_.guests()) {
    line += vc_uuid + ",vmEvents:" + std::to_string(guest->vm_events) +
            ",systemEvents:" + std::to_string(guest->system_events) +
            ",timerEvents:" + std::to_string(guest->timer_events) +
            ",networkEvents:" + std::to_string(guest->network_events) + ",";
    if (now - (kSilentSeconds - 1) > static_cast<int64_t>(guest->last_timer_event)) {
      ZLOG_CTX_ERROR(308, "Haven't received any timer events for VM %s in the past %d seconds",
                     vc_uuid.c_str(), kSilentSeconds);
    }
  }
  ZLOG_INFO("%s", line.c_str());
}

void CtxtHealth::SendHealthStatus() {
  std::string text;
  if (settings_.read_health(&text) != 0) return;
  ZLOG_INFO("CtxtHeaalth: Health Status from Mux:{%s}", text.c_str());
  const Guests guests = settings_.guests();
  const auto find = [&guests](const std::string& vc_uuid) -> std::shared_ptr<const VmData> {
    const auto guest = guests.find(vc_uuid);
    return guest == guests.end() ? nullptr : guest->second;
  };
  if (Send(std::make_shared<HealthStatusMsg>(BuildHealthReport(text, find))))
    ZLOG_INFO("CtxtHealth: Sent context health message to MP");
}

void CtxtHealth::SendStatus(uint32_t code, const std::string& text) {
  auto status = std::make_shared<HealthStatusMsg>();
  status->set_status_code(code);
  status->set_error_msg(text);
  status->set_timestamp(WallMilliseconds());
  if (Send(std::move(status))) ZLOG_INFO("CtxtHealth: Sent context error health message to MP");
}

void CtxtHealth::SendMuxDisconnected() {
  SendStatus(kMuxDisconnected, "zem-context-mux disconnected from Context Engine");
}

bool CtxtHealth::Send(std::shared_ptr<HealthStatusMsg> status) {
  if (!settings_.applies) return false;
  ZLOG_INFO("CtxtHealth: Sending health message");
  if (ZLOG_WANTS(::zem::kLogTrace)) {
    constexpr const char* kRow = "----------------------------------------";
    ZLOG_TRACE("%s", kRow);
    ZLOG_TRACE("CtxtHealth: Health Status Message dump");
    ZLOG_TRACE("%s", status->DebugString().c_str());
    ZLOG_TRACE("%s", kRow);
  }
  auto message = std::make_shared<CtxtMsg>();
  message->msgType = kMsgType;
  message->appId = kAppId;
  message->appType = kAppType;
  message->payloadType = kPayloadType;
  message->payloadLen = status->ByteSizeLong();
  message->payload = std::move(status);
  // The channel logs a failure.
  return settings_.send(message, true) >= 0;
}

}  // namespace Ctxt
