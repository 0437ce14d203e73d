#include "app/zema/manager/manager_sender.h"

#include "app/zema/state/realization_options.h"
#include "framework/log/log.h"
#include "framework/process/shutdown_pipe.h"
#include "proto/switching/vif.pb.h"

namespace zem::zema {

namespace {

using orlane::zem::switching::VifAttachmentMsg;
using orlane::zem::switching::VifMsg;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kVifType = "com.orlane.zem.switching.VifMsg";

// The part of the time limit that is reserved for the manager's answer after the message is sent.
constexpr int kAnswerReserveS = 10;
constexpr int kPassPauseS = 2;
constexpr int kRestoreTries = 4;
constexpr int kRestorePauseS = 15;

constexpr uint32_t kRequest = 0;
constexpr uint32_t kAttach = 0;
constexpr uint32_t kDetach = 1;
constexpr uint32_t kUpdate = 2;
constexpr uint32_t kRestore = 3;

}  // namespace

bool ManagerSender::Pause(int seconds) const {
  return !Tarvik::WaitForShutdown(std::chrono::seconds(seconds)) && !Tarvik::ShutdownRequested();
}

bool ManagerSender::WaitForManager(int limit_s) const {
  for (int i = 0; !vertical_.connected(); ++i) {
    if (i >= limit_s) {
      vertical_.LogNotSent(VerticalClient::Sent::kNotConnected, "");
      return false;
    }
    ZLOG_ERROR("41518", "[%s] Not connected to MPA, retrying...\n", "SendMsg");
    if (!Pause(1)) return false;
  }
  return true;
}

bool ManagerSender::SendMsg(const std::string& type, std::string_view data, const std::string& correlation_id,
                            const std::string& reply_to, std::string* message_id) {
  const VerticalClient& vertical = vertical_;
  const int limit_s = options_.Snapshot().vif_operation_timeout - kAnswerReserveS;
  if (!vertical.registered() || !WaitForManager(limit_s)) return false;
  const auto message = vertical.Prepare(type, std::string(data), correlation_id, reply_to);
  if (!message) {
    vertical.LogNotSent(VerticalClient::Sent::kUnknownType, type);
    return false;
  }
  if (!SendMsgToAph(*message, limit_s)) {
    vertical.LogNotSent(VerticalClient::Sent::kRefused, type);
    return false;
  }
  if (message_id != nullptr) *message_id = message->message_id;
  return true;
}

// Tries the master first, then every proxy of the current list, again and again until the time is over.  A
// message that was refused for a reason of its own is not offered to the others.
bool ManagerSender::SendMsgToAph(const VerticalClient::Outgoing& message, int limit_s) const {
  const VerticalClient& vertical = vertical_;
  const VerticalClient::Sent first = vertical.SendPrepared(message);
  if (first == VerticalClient::Sent::kSent) return true;
  if (first != VerticalClient::Sent::kNoRoad) return false;
  ZLOG_ERROR("00103", "Error while sending to Primary APH, trying Secondary APH");
  for (int spent_s = 0; spent_s < limit_s; spent_s += kPassPauseS) {
    for (const auto& [aph, master] : vertical.Aphs()) {
      if (vertical.SendPrepared(message, aph) == VerticalClient::Sent::kSent) {
        ZLOG_INFO("[%s] SendMsg to APH: %s succeeded.\n", message.type.c_str(), aph.c_str());
        return true;
      }
      ZLOG_INFO("Error while sending to APH %s, trying next APH", aph.c_str());
    }
    if (!Pause(kPassPauseS)) return false;
  }
  return false;
}

bool ManagerSender::SendVif(const VifMsg& message, std::string* message_id) {
  return SendMsg(kVifType, message.SerializeAsString(), "", "", message_id);
}

bool ManagerSender::SendVIFAttachmentInfo(const Attachment& attachment, std::string* message_id) {
  VifMsg message;
  message.set_type(kRequest);
  message.set_operation(attachment.attach ? kAttach : kDetach);
  VifAttachmentMsg* const vif = message.add_vif_attachment();
  vif->set_vif_id(attachment.vif_id);
  vif->set_logical_switch_id(attachment.switch_id);
  if (!attachment.port_id.empty()) vif->set_logical_port_id(attachment.port_id);
  vif->set_operation_id(attachment.rpc_id);
  vif->set_host_id(attachment.host_id);
  vif->set_gcf_path(attachment.gcf_path);
  return SendVif(message, message_id);
}

bool ManagerSender::SendVIFUpdate(const Update& update) {
  VifMsg message;
  message.set_type(kRequest);
  message.set_operation(kUpdate);
  VifAttachmentMsg* const vif = message.add_vif_attachment();
  vif->set_vif_id(update.vif_id);
  vif->set_logical_switch_id(update.switch_id);
  vif->set_logical_port_id(update.port_id);
  vif->set_operation_id(update.rpc_id);
  vif->set_host_id(update.host_id);
  for (const auto& [name, value] : update.site_configs) {
    auto* const pair = vif->add_site_config();
    pair->set_key(name);
    pair->set_value(value);
  }
  std::string message_id;
  return SendVif(message, &message_id);
}

bool ManagerSender::SendVIFRestoreResponse(const RestoreResponse& response) {
  VifMsg message;
  message.set_type(kRequest);
  message.set_operation(kRestore);
  VifAttachmentMsg* const vif = message.add_vif_attachment();
  vif->set_vif_id(response.vif_id);
  vif->set_logical_switch_id(response.switch_id);
  vif->set_logical_port_id(response.port_id);
  vif->set_operation_id(response.message_id);
  vif->set_host_id(response.host_id);
  vif->set_gcf_path(response.gcf_path);
  vif->set_state(response.state);
  if (!response.error.empty()) vif->set_error_text(response.error);
  for (int left = kRestoreTries - 1; left >= 0; --left) {
    std::string message_id;
    if (SendVif(message, &message_id)) return true;
    ZLOG_INFO("[%s] Error sending VIF Restore message ID [%s] for VIF [%s]. Retries left: [%d]\n", __func__,
              response.message_id.c_str(), response.vif_id.c_str(), left);
    if (left > 0 && !Pause(kRestorePauseS)) break;
  }
  ZLOG_INFO("[%s] VIF Restore [%s] reply not sent. Retries exhausted.\n", __func__,
            response.message_id.c_str());
  return false;
}

}  // namespace zem::zema
