#include "app/supportbundle/support_bundle_client.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <exception>
#include <utility>

#include "app/supportbundle/bundle_request_reader.h"
#include "framework/log/log.h"
#include "mpaclient/verticals.h"
#include "platform/provider/provider.h"
#include "platform/provider/work_group.h"
#include "proto/support_bundle/support_bundle.pb.h"

// The manager's messages may hold the password of a file server: no line of the log has their contents.

namespace zem::Tarvik {
namespace {

namespace proto = orlane::zem::support_bundle;

constexpr LogSource kLog{"tarvik", "supportbundle"};

constexpr int kThreads = 2;
constexpr const char* kUnknownId = "UNKNOWN";
constexpr const char* kInvalidIdText = "Invalid generate id";
constexpr const char* kBusyText = "New bundle request received while another request already in progress";
constexpr const char* kStatusType = "com.orlane.zem.support_bundle.SupportBundle.BundleStatusResponseMsg";

// The types of records that may have a message for us.
constexpr std::array kMessageRecords = {kRmqClientPayload, kRmqMpRpcRequest, kRmqMpRpcResponse,
                                        kRmqClientRpcResponse, kRmqMpPublish};

std::string Size(size_t length) { return "<" + std::to_string(length) + " bytes>"; }

void LogRecord(const VerticalRecord& record) {
  ZLOG_DEBUG("Got Message in Function Callback Type %d", static_cast<int>(record.type()));
  ZLOG_DEBUG("Routing Key %s", record.raw.routing_key != nullptr ? record.raw.routing_key : "");
  ZLOG_DEBUG("Content Type %s", record.raw.content_type != nullptr ? record.raw.content_type : "");
  ZLOG_DEBUG("Payload Len %d", static_cast<int>(record.payload().size()));
  ZLOG_DEBUG("Payload %s", Size(record.payload().size()).c_str());
  VisitBusHeader(record.raw, [](const BusHeaderElement& element) {
    ZLOG_DEBUG("Iterating HEADER BSON Type %d", element.type);
    if (element.text != nullptr) {
      ZLOG_DEBUG("Iterating HEADER BSON Type %d Key %s Value %s", element.type, element.key, element.text);
    } else if (element.number) {
      ZLOG_DEBUG("Iterating HEADER BSON Type %d Key %s Value %ld", element.type, element.key,
                 static_cast<long>(*element.number));
    }
  });
}

}  // namespace

const SupportBundleClient::Message SupportBundleClient::kMessages[3] = {
    {"com.orlane.zem.support_bundle.BundleGenerationRequestMsg", &SupportBundleClient::Generate},
    {"com.orlane.zem.support_bundle.BundleStatusRequestMsg", &SupportBundleClient::Status},
    {"com.orlane.zem.support_bundle.BundleGenerationCancellationRequestMsg", &SupportBundleClient::Cancel},
};

SupportBundleClient::SupportBundleClient(AsioZemProvider& provider, BundleScripts scripts)
    : provider_(provider),
      status_thread_(new SupportBundleStatusCheckThread(info_)),
      worker_thread_(new SupportBundleWorkerThread(info_, std::move(scripts))),
      vertical_(provider, GetVertical(VerticalId::kSupportBundle),
                {.intercept = [this](const VerticalRecord& record) {
                  Receive(record);
                  return true;
                }}) {}

SupportBundleClient::~SupportBundleClient() = default;

bool SupportBundleClient::Start() {
  ZLOG_INFO("Starting Support Bundle Client...\n");
  vertical_.Start();
  status_thread_->Reset();
  worker_thread_->Reset();
  work_group_ = new WorkGroup("sbundle", provider_.metrics(), WorkGroup::kUnbounded);
  work_group_->Start(kThreads);
  const bool queued =
      work_group_->Enqueue(std::make_shared<WorkItemImpl<SupportBundleStatusCheckThread>>(status_thread_)) &&
      work_group_->Enqueue(std::make_shared<WorkItemImpl<SupportBundleWorkerThread>>(worker_thread_));
  if (queued) ZLOG_INFO("Support Bundle Client start completed\n");
  return queued;
}

void SupportBundleClient::Stop() {
  ZLOG_INFO("shutting down ...");
  status_thread_->Stop();
  worker_thread_->Stop();
  if (work_group_) work_group_->Stop();
  work_group_.reset();
  vertical_.Stop();
  ZLOG_INFO("support-bundle-client shutdown completed");
}

void SupportBundleClient::Receive(const VerticalRecord& message) {
  if (ZLOG_WANTS(kLogDebug)) LogRecord(message);
  if (std::ranges::find(kMessageRecords, message.type()) == kMessageRecords.end()) {
    ZLOG_ERROR("OPS60002", "Unrecognized messageType [%d] from MPA. \n", static_cast<int>(message.type()));
    return;
  }
  HandleMessage(message.header.reply_to, message.header.correlation_id, message.header.type_id,
                message.payload().data(), message.payload().size());
}

void SupportBundleClient::HandleMessage(const std::string& reply_to, const std::string& correlation_id,
                                        const std::string& type_id, const void* payload, size_t length) {
  const auto* const row =
      std::ranges::find_if(kMessages, [&](const Message& each) { return type_id == each.type_id; });
  if (row == std::end(kMessages)) return;
  try {
    (this->*row->handler)({static_cast<const char*>(payload), length}, {reply_to, correlation_id});
  } catch (const std::exception& error) {
    ZLOG_ERROR("OPS60008", "std::exception while processing support bundle message: %s\n", error.what());
    ZLOG_DEBUG("msg: %s,   msgLen: %d", Size(length).c_str(), static_cast<int>(length));
  } catch (...) {
    ZLOG_ERROR("OPS60012", "caught unknown exception\n");
    ZLOG_DEBUG("msg: %s,   msgLen: %d", Size(length).c_str(), static_cast<int>(length));
  }
}

void SupportBundleClient::RefuseUnparsed(const char* text, const Road& road) {
  SendStatus(kUnknownId, BundleStatus::kBadRequest, text, road.reply_to, road.correlation_id);
  ZLOG_ERROR("OPS60005", "Error parsing protobuf message");
}

void SupportBundleClient::Generate(std::string_view payload, const Road& road) {
  proto::BundleGenerationRequestMsg message;
  if (!message.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
    return RefuseUnparsed("Failed to parse BundleGenerationRequestMsg", road);
  }
  BundleRequest request = ReadBundleRequest(message);
  request.reply_to = road.reply_to;
  request.correlation_id = road.correlation_id;
  std::string generate_id = request.generate_id;
  BundleStatus status = BundleStatus::kInWork;
  {
    LockWorkerInfo info(info_);
    if (IsInProgress(info.state())) {
      status = BundleStatus::kBusy;
      generate_id = info.request().generate_id;
    } else {
      std::swap(info.request(), request);
      info.SetState(BundleStatus::kRequested);
      info.Touch();
    }
  }
  if (status == BundleStatus::kBusy) {
    ZLOG_INFO("%s", kBusyText);
  } else {
    ZLOG_INFO("New bundle request received");
  }
  request.WipePassword();
  SendStatus(generate_id, status, status == BundleStatus::kBusy ? kBusyText : "", road.reply_to,
             road.correlation_id);
}

void SupportBundleClient::Status(std::string_view payload, const Road& road) {
  proto::BundleStatusRequestMsg message;
  if (!message.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
    return RefuseUnparsed("Failed to parse BundleStatusRequestMsg", road);
  }
  BundleStatus status = BundleStatus::kInvalidId;
  std::string text = kInvalidIdText;
  {
    LockWorkerInfo info(info_);
    if (info.HasId(message.generate_id())) {
      info.Touch();
      status = info.state();
      text = info.state_text();
    }
  }
  SendStatus(message.generate_id(), status, text, road.reply_to, road.correlation_id);
}

void SupportBundleClient::Cancel(std::string_view payload, const Road& road) {
  proto::BundleGenerationCancellationRequestMsg message;
  if (!message.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
    return RefuseUnparsed("Failed to parse BundleGenerationCancellationRequestMsg", road);
  }
  BundleStatus status = BundleStatus::kInvalidId;
  bool too_late = false;
  {
    LockWorkerInfo info(info_);
    if (info.HasId(message.generate_id())) {
      if (info.state() == BundleStatus::kInWork) {
        info.SetState(BundleStatus::kBeingCancelled);
      } else if (info.state() == BundleStatus::kRequested) {
        info.SetState(BundleStatus::kCancelled);
        info.request().WipePassword();
      } else {
        too_late = true;
      }
      status = info.state();
    }
  }
  if (too_late) {
    ZLOG_INFO("Ignoring cancel request, task has progressed beyond point where it can be cancelled");
  }
  SendStatus(message.generate_id(), status, status == BundleStatus::kInvalidId ? kInvalidIdText : "",
             road.reply_to, road.correlation_id);
}

void SupportBundleClient::SendStatus(const std::string& generate_id, BundleStatus status,
                                     const std::string& text, const std::string& reply_to,
                                     const std::string& correlation_id) {
  proto::BundleStatusResponseMsg response;
  response.set_generate_id(generate_id);
  response.set_status(static_cast<uint32_t>(status));
  response.set_text(text);
  std::string bytes;
  if (!response.SerializeToString(&bytes)) {
    ZLOG_ERROR("OPS60003", "Could not serialize msg %s", kStatusType);
    return;
  }
  ZLOG_DEBUG("Sending message (type:%s, len:%d)\n", kStatusType, static_cast<int>(bytes.size()));
  const auto message = vertical_.Prepare(kStatusType, std::move(bytes), correlation_id, reply_to);
  if (message && vertical_.SendPrepared(*message) == VerticalClient::Sent::kSent) {
    ZLOG_DEBUG("sent a message (type:%s) to mpa\n", kStatusType);
  } else {
    ZLOG_ERROR("OPS60004", "failed to send message (type:%s) to mpa\n", kStatusType);
  }
}

}  // namespace zem::Tarvik
