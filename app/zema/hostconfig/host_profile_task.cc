#include "app/zema/hostconfig/host_profile_task.h"

#include <utility>

#include "app/zema/manager/mpa_message_sender.h"
#include "app/zema/proxy/lum_commands.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::HostProfileMsg;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kFactsCommand = "CheckQUBiVersion70AndUnusedCkln()";
constexpr uint32_t kReplyMarker = 2;
constexpr uint32_t kSuccess = 1;
constexpr uint32_t kFailure = 2;

// The reply is "ok|" and two digits: whether the version is 7.0 or higher, and whether there is an unused
// switch.
bool IsVersion70(const std::string& facts) {
  constexpr size_t kVersionDigit = 3;
  return facts.size() > kVersionDigit && facts.rfind("ok|", 0) == 0 && facts[kVersionDigit] == '1';
}

}  // namespace

HostProfileMsg RefusedHostProfile(const std::string& error) {
  HostProfileMsg reply;
  reply.set_reply_marker(kReplyMarker);
  reply.set_status(kFailure);
  reply.set_error_text(error);
  return reply;
}

HostProfileTask::HostProfileTask(LumCommands& lum, MpaMessageSender* sender, std::string correlation_id,
                                 std::string reply_to, HostProfileMsg message)
    : MpaMessageTask(sender, std::move(correlation_id), std::move(reply_to), std::move(message)), lum_(lum) {}

void HostProfileTask::Run() {
  const std::string data = message_.SerializeAsString();
  std::string facts;
  const bool version_70 =
      lum_.InvokeCommand(kFactsCommand, "", &facts) == LumCommands::kSucceeded && IsVersion70(facts);
  ZLOG_DEBUG("[%s] the host is %s than version 7.0", __func__, version_70 ? "not older" : "older");
  ZLOG_INFO("Processing HostProfileMsgwith HOSTPROFILEQUB70 - SetTnRealizationStatus(), data [%s]",
            message_.ShortDebugString().c_str());
  std::string error;
  HostProfileMsg reply;
  reply.set_reply_marker(kReplyMarker);
  if (lum_.InvokeRPC(LumOperation::kHostProfile, data, &error) == LumCommands::kRpcSucceeded) {
    reply.set_status(kSuccess);
    ZLOG_INFO("Host profile message processing Success");
  } else {
    reply = RefusedHostProfile(error);
    ZLOG_WARN("Host Profile message processing failed: [%s]", error.c_str());
  }
  if (sender_ == nullptr) {
    ZLOG_INFO("HostProfile reply skipped");
    return;
  }
  if (!sender_->HostProfileReply(correlation_id_, reply_to_, reply)) {
    ZLOG_WARN("[%s] the reply to a host profile was not sent", __func__);
  }
}

}  // namespace zem::zema
