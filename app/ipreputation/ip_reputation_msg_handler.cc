#include "app/ipreputation/ip_reputation_msg_handler.h"

#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "covedbclient/covedb_client_interface.h"
#include "covedbclient/statements.h"
#include "framework/log/log.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/uuid.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/firewall_objects.pb.h"
#include "proto/firewall/firewall.pb.h"

namespace zem::Tarvik {
namespace {

namespace store = orlane::zem::covedb;

constexpr LogSource kLog{"tarvik", "ipreputation"};

constexpr uint32_t kModuleId = 11;
constexpr auto kPeriod = std::chrono::seconds(120);
constexpr auto kSendersPatience = std::chrono::seconds(1);

// These codes are texts in quotes.
constexpr const char* kMonitorRefused = "\"Failed to configure ip reputation config monitor in CoveDB\"";
constexpr const char* kCallbackFailed = "\"Error while processing covedb message callback %s\"";
constexpr const char* kNoPayload = "OPS00003 \"Failed to allocate payload message\"";

}  // namespace

IpReputationMsgHandler::IpReputationMsgHandler(AsioZemProvider& provider,
                                               std::shared_ptr<covedb::CoveDbClientInterface> store)
    : store_(std::move(store)), channel_(std::make_shared<IpReputationMpChannel>(provider)) {}

IpReputationMsgHandler::~IpReputationMsgHandler() { stop_.Stop(); }

bool IpReputationMsgHandler::Start() {
  channel_->Connect();
  if (store_) {
    WatchStore();
  } else {
    ZLOG_INFO("the node has no store, there is no IP reputation to report");
  }
  try {
    reporter_ = NativeThread([this] { ProcessIpReputationMessages(); });
  } catch (const std::system_error& error) {
    ZLOG_ERROR("ERR_CREATE_THREAD", "Failed to start messge processor thread %s", error.what());
    return false;
  }
  return true;
}

void IpReputationMsgHandler::Stop() {
  stop_.Stop();
  if (reporter_.joinable()) reporter_.Join();
  {
    std::unique_lock lock(mutex_);
    sender_ended_.WaitFor(lock, kSendersPatience, [this] { return senders_ == 0; });
  }
  channel_->Stop();
}

// --- The store's threads.

void IpReputationMsgHandler::WatchStore() {
  const std::weak_ptr<IpReputationMsgHandler> weak = weak_from_this();
  // A registration lasts as long as the store client; that of a second start is refused and not needed.
  (void)store_->RegisterMonitorCallback(
      kModuleId,
      [weak](const store::MonitorUpdateMsg& update) {
        if (const auto self = weak.lock()) self->Update(update);
      },
      [] {}, covedb::kDefaultVDb);
  // The store tells everything anew after an outage; a record that went meanwhile is not told at all.
  store_->AddChannelStatusCallback([weak](bool up) {
    const auto self = weak.lock();
    if (self && up) self->curr_record_count_ = 0;
  });
  if (!store_->ConfigureMonitor({covedb::MonitorStatementFor(store::IP_REPUTATION_RECORD_EVENT)}, {},
                                kModuleId, covedb::kDefaultVDb)) {
    ZLOG_ERROR(kMonitorRefused, "%s", "");
  }
}

void IpReputationMsgHandler::Update(const store::MonitorUpdateMsg& update) {
  try {
    TakeRecord(update);
  } catch (const std::exception& error) {
    ZLOG_ERROR(kCallbackFailed, "%s", error.what());
  }
}

void IpReputationMsgHandler::TakeRecord(const store::MonitorUpdateMsg& update) {
  if (!update.has_object()) {
    ZLOG_WARN("Empty message found in covedb callback");
    return;
  }
  store::ObjectOpMsg operation;
  if (!update.has_operation()) {
    ZLOG_WARN("No op_msg found in covedb callback");
  } else if (!operation.ParseFromString(update.operation())) {
    throw std::invalid_argument("the operation does not parse");
  }
  if (update.object_type() != store::IP_REPUTATION_RECORD_EVENT) return;
  store::IpReputationRecordEventMsg record;
  if (!record.ParseFromString(update.object())) throw std::invalid_argument("the record does not parse");
  const bool gone = operation.operation() == store::ObjectOpMsg::DELETE;
  curr_record_count_ = gone ? 0 : record.record_count();
  ZLOG_DEBUG("Received covedb update: records %u", curr_record_count_.load());
}

// --- The reports.

void IpReputationMsgHandler::ProcessIpReputationMessages() {
  const LoopThread loop("ipReputation", LoopKind::kWorker);
  try {
    do {
      ReportOnce();
    } while (!stop_.WaitFor(kPeriod));
    ZLOG_INFO("process message interrupted, exiting");
  } catch (const std::exception& error) {
    ZLOG_ERROR("OPS70001", "Exception in message processing thread %s", error.what());
  } catch (...) {
    ZLOG_ERROR("OPS70001", "Unknown exception while receiving events");
  }
}

void IpReputationMsgHandler::ReportOnce() {
  const LoopStep step("report");
  const uint32_t count = curr_record_count_;
  ZLOG_DEBUG("Sending to MP Data received");
  ZLOG_DEBUG("currRecordCount %u", count);
  if (count == 0) return;
  const auto proxy = TnProxyClientCommon::getInstance();
  const auto node = ParseUuid(proxy ? proxy->getTnUuidStr() : std::string());
  if (!node) {
    // It comes with the proxy's first list.
    ZLOG_WARN("the transport node's id is not known yet, %u records of IP reputation are not reported now",
              count);
    return;
  }
  Report report;
  SetUuid(*node, report.mutable_transport_node_id());
  report.set_record_count(count);
  SendDetached(report);
}

void IpReputationMsgHandler::SendDetached(const Report& report) {
  {
    const std::lock_guard lock(mutex_);
    ++senders_;
  }
  const auto send = [self = shared_from_this(), weak = std::weak_ptr(channel_), report] {
    ZLOG_INFO("Sending IpRep event Message to MP : %s", report.ShortDebugString().c_str());
    std::string payload;
    try {
      if (!report.SerializeToString(&payload)) {
        ZLOG_ERROR("OPS60003", "ERROR while serializing protobuf");
      } else if (const auto channel = weak.lock()) {
        const int result = channel->Send(std::move(payload));
        if (result < 0) ZLOG_ERROR("OPS60004", "Error While Sending to MP %d \n", result);
      }
    } catch (const std::bad_alloc&) {
      ZLOG_ERROR(kNoPayload, "%s", "");
    }
    const std::lock_guard lock(self->mutex_);
    --self->senders_;
    self->sender_ended_.NotifyAll();
  };
  try {
    NativeThread({.detached = true}, send);
  } catch (const std::system_error& error) {
    const std::lock_guard lock(mutex_);
    --senders_;
    ZLOG_WARN("no thread for a report of IP reputation, the next one follows: %s", error.what());
  }
}

}  // namespace zem::Tarvik
