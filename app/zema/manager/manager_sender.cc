#include "app/zema/manager/manager_sender.h"

#include <array>

#include "app/zema/state/realization_options.h"
#include "framework/log/log.h"
#include "framework/process/shutdown_pipe.h"
#include "mpaclient/bus/bus_record.h"
#include "mpaclient/mpa_client.h"
#include "platform/core/uuid.h"
#include "proto/switching/vif.pb.h"

namespace zem::zema {

/// A message that is ready to go, to whichever proxy takes it.
struct OutgoingRecord {
  BusRecord record;
  const char* type;
};

namespace {

using orlane::zem::switching::VifAttachmentMsg;
using orlane::zem::switching::VifMsg;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kApp = "SwitchingVertical";
constexpr const char* kPrefix = "com.orlane.zem.switching.";
constexpr const char* kVifType = "com.orlane.zem.switching.VifMsg";
constexpr const char* kHostMessageResponse = "com.orlane.zem.switching.HostMessageResponse";
constexpr const char* kRequestClass = "com.orlane.zem.customer.ClientRpcRequest";
constexpr const char* kJsonContent = "application/json";

// What is left of the time limit for the manager's answer after a message has gone out.
constexpr int kAnswerReserveS = 10;
constexpr int kPassPauseS = 2;
constexpr int kRestoreTries = 4;
constexpr int kRestorePauseS = 15;

constexpr uint32_t kRequest = 0;
constexpr uint32_t kAttach = 0;
constexpr uint32_t kDetach = 1;
constexpr uint32_t kUpdate = 2;
constexpr uint32_t kRestore = 3;

struct TypeRow {
  std::string_view name;  // behind kPrefix
  BusMessageType record;
  const char* correlation;  // null: the caller's
};
constexpr std::array kTypes = {
    TypeRow{"VifMsg", kRmqClientRpcRequest, "vif_msg_rpc_correlation_id"},
    TypeRow{"HostConfigMsg", kRmqClientRpcResponse, nullptr},
    TypeRow{"LogicalSwitchBulkMsg", kRmqClientRpcResponse, nullptr},
    TypeRow{"LogicalSwitchMsg", kRmqClientRpcResponse, nullptr},
    TypeRow{"MaintenanceModeConfigResultMsg", kRmqClientRpcResponse, nullptr},
    TypeRow{"HostProfileMsg", kRmqClientRpcResponse, nullptr},
    TypeRow{"TransportNodeHostSwitchesMigrationMsg", kRmqClientRpcResponse, nullptr},
    TypeRow{"VTEPRecoveryResultMsg", kRmqClientRpcResponse, nullptr},
    TypeRow{"VTEPAdminStateMgmtResultMsg", kRmqClientRpcResponse, nullptr},
    TypeRow{"HostConfigAckMsg", kRmqClientRpcRequest, "mp_rpc_correlation_id"},
    TypeRow{"TransportNodeEventMsg", kRmqClientRpcRequest, "mp_rpc_correlation_id"},
    TypeRow{"ChecksumMsg", kRmqClientRpcRequest, "mp_rpc_correlation_id"},
};

const TypeRow* FindType(std::string_view type) {
  if (type.rfind(kPrefix, 0) != 0) return nullptr;
  type.remove_prefix(std::string_view(kPrefix).size());
  for (const TypeRow& row : kTypes) {
    if (row.name == type) return &row;
  }
  return nullptr;
}

}  // namespace

bool ManagerSender::Pause(int seconds) const {
  return !Tarvik::WaitForShutdown(std::chrono::seconds(seconds)) && !Tarvik::ShutdownRequested();
}

bool ManagerSender::WaitForManager(MpaClient& client, int limit_s) const {
  for (int i = 0; !client.IsConnected(); ++i) {
    if (i >= limit_s) {
      ZLOG_ERROR("41518", "[%s] Not connected to MPA, dropped message to MPA\n", "SendMsg");
      return false;
    }
    ZLOG_ERROR("41518", "[%s] Not connected to MPA, retrying...\n", "SendMsg");
    if (!Pause(1)) return false;
  }
  return true;
}

bool ManagerSender::SendMsg(const std::string& type, std::string_view data, const std::string& correlation_id,
                            const std::string& reply_to, std::string* message_id) {
  const auto client = client_();
  const int limit_s = options_.Snapshot().vif_operation_timeout - kAnswerReserveS;
  if (!client || !WaitForManager(*client, limit_s)) return false;
  const TypeRow* const row = FindType(type);
  if (row == nullptr) {
    ZLOG_ERROR("00104", "[%s] Unsupported message type %s to MPA\n", __func__, type.c_str());
    return false;
  }
  BusHeader header;
  header.type_id = type;
  header.msg_class = kRequestClass;
  header.message_id = RandomUuidText();
  header.correlation_id = row->correlation != nullptr ? row->correlation : correlation_id;
  OutgoingRecord outgoing{BusRecord(row->record), type.c_str()};
  outgoing.record.SetApp(kApp, "unused")
      .SetCookie(client->cookie())
      .SetHeader(header)
      .SetContentType(type == kHostMessageResponse ? kJsonContent : kProtobufContent)
      .SetPayload(std::string(data));
  if (row->record == kRmqClientRpcResponse && !reply_to.empty()) outgoing.record.SetRoutingKey(reply_to);
  if (!SendMsgToAph(*client, outgoing, limit_s)) {
    ZLOG_ERROR("00103", "[%s] failed to send message (type:%s) to mpa\n", __func__, type.c_str());
    return false;
  }
  if (message_id != nullptr) *message_id = header.message_id;
  return true;
}

// To the master first; then to whoever takes it, pass after pass over the list as it is at that moment.  What
// no proxy would take is not offered to the others.
bool ManagerSender::SendMsgToAph(MpaClient& client, const OutgoingRecord& outgoing, int limit_s) const {
  rmqClientMessage message = outgoing.record.message();
  MpaClient::SendFailure why = MpaClient::SendFailure::kNone;
  if (client.SendMessageTo(&message, "", &why) == 0) return true;
  if (why != MpaClient::SendFailure::kNoRoad) return false;
  ZLOG_ERROR("00103", "Error while sending to Primary APH, trying Secondary APH");
  for (int spent_s = 0; spent_s < limit_s; spent_s += kPassPauseS) {
    for (const auto& [aph, master] : client.Aphs()) {
      rmqClientMessage again = outgoing.record.message();
      if (client.SendMessageTo(&again, aph, nullptr) == 0) {
        ZLOG_INFO("[%s] SendMsg to APH: %s succeeded.\n", outgoing.type, aph.c_str());
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
