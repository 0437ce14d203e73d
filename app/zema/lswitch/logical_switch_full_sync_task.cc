#include "app/zema/lswitch/logical_switch_full_sync_task.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <exception>
#include <utility>

#include "app/zema/manager/mpa_message_sender.h"
#include "app/zema/proxy/lum_commands.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::LogicalSwitchBulkMsg;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr uint32_t kBegin = 0;
constexpr uint32_t kAnswer = 2;
constexpr uint32_t kSuccess = 0;
constexpr uint32_t kFailure = 1;

// Finds out whether the payload is the first piece of a sync, without parsing all its switches.  The host
// refuses a payload that does not parse, so such a payload does not count as a first piece.
bool Begins(const std::string& payload) {
  using Wire = google::protobuf::internal::WireFormatLite;
  google::protobuf::io::CodedInputStream in(reinterpret_cast<const uint8_t*>(payload.data()),
                                            static_cast<int>(payload.size()));
  uint32_t flag = kBegin;
  while (const uint32_t tag = in.ReadTag()) {
    const bool is_flag = Wire::GetTagFieldNumber(tag) == LogicalSwitchBulkMsg::kContinuationFlagFieldNumber &&
                         Wire::GetTagWireType(tag) == Wire::WIRETYPE_VARINT;
    if (is_flag ? !in.ReadVarint32(&flag) : !Wire::SkipField(&in, tag)) break;
  }
  return flag == kBegin && in.ConsumedEntireMessage();
}

}  // namespace

LogicalSwitchFullSyncTask::LogicalSwitchFullSyncTask(std::shared_ptr<LogicalSwitchContext> context,
                                                     MpaMessageSender* sender, std::string correlation_id,
                                                     std::string reply_to, std::string payload)
    : MpaMessageTask(sender, std::move(correlation_id), std::move(reply_to), LogicalSwitchBulkMsg()),
      context_(std::move(context)),
      payload_(std::move(payload)) {
  if (Begins(payload_)) context_->fence.SupersedeManager();
  arrival_.emplace(context_->fence);
}

void LogicalSwitchFullSyncTask::Run() {
  error_.clear();
  {
    const Synchronizer lock(context_->fence, __FILE__, __LINE__);
    std::string out;
    if (context_->lum.InvokeRPC(LumOperation::kApplyLogicalSwitches, payload_, &out) !=
        LumCommands::kRpcSucceeded) {
      error_ = out.empty() ? "no reason given" : out;
    }
  }
  arrival_.reset();
  if (sender_ == nullptr) {
    ZLOG_INFO("LogicalSwitchFullSyncTask reply skipped");
    return;
  }
  LogicalSwitchBulkMsg reply;
  reply.set_continuation_flag(kAnswer);
  reply.set_status(error_.empty() ? kSuccess : kFailure);
  if (!error_.empty()) reply.set_error_text(error_);
  if (!sender_->LogicalSwitchFullSyncReply(correlation_id_, reply_to_, reply)) {
    ZLOG_WARN("[%s] the reply to a full sync was not sent", __func__);
  }
}

std::string MP_RemoveAllLogicalSwitches(const std::shared_ptr<LogicalSwitchContext>& context) {
  LogicalSwitchBulkMsg none;
  none.set_continuation_flag(kBegin);
  ZLOG_INFO("[%s] Performing logical switch full sync using message: [%s]\n", __func__,
            none.ShortDebugString().c_str());
  context->fence.Supersede();
  std::string failure;
  try {
    LogicalSwitchFullSyncTask task(context, nullptr, "", "", none.SerializeAsString());
    task.Run();
    if (!task.error().empty()) failure = "Failed to remove all logical switches, error: " + task.error();
  } catch (const std::exception& e) {
    failure = std::string("Failed to remove all logical switches, error: ") + e.what();
  } catch (...) {
    failure = "Failed to remove all logical switches, unknown error";
  }
  if (!failure.empty()) ZLOG_ERROR("41539", "[%s] %s\n", __func__, failure.c_str());
  return failure;
}

}  // namespace zem::zema
