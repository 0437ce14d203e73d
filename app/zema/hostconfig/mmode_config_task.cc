#include "app/zema/hostconfig/mmode_config_task.h"

#include <algorithm>

#include "app/zema/covedb/config_files.h"
#include "app/zema/manager/mpa_message_sender.h"
#include "app/zema/manager/zem_manager.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/state/health_record.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

namespace switching = orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

// States in the request.
constexpr uint32_t kLeave = 0;
constexpr uint32_t kEnterChecked = 1;
constexpr uint32_t kEnter = 2;
// States in the answer.
constexpr uint32_t kIn = 1;
constexpr uint32_t kOut = 3;

constexpr uint32_t kBadRequest = 8750;
constexpr uint32_t kVmConnected = 8751;
constexpr uint32_t kProxyRefused = 8754;

constexpr const char* kZemcli = "/opt/orlane/zem-cli/bin/scripts/zemcli";

void TakeHealthDown(MmodeContext& context) {
  ZLOG_INFO("[%s] Updating zema health to down on enterTnMmode", "enterTnMmode");
  context.health.enterTnMmode();
}

void Leave(MmodeContext& context) {
  context.manager.SetMaintenanceMode(false);
  context.health.exitTnMmode();
}

}  // namespace

void MmodeConfigTask::Run() {
  Apply();
  if (sender_ != nullptr) sender_->TnMmodeConfigReply(correlation_id_, reply_to_, BuildReply());
}

MmodeConfigTaskQub::MmodeConfigTaskQub(std::shared_ptr<MmodeContext> context, MpaMessageSender* sender,
                                       std::string correlation_id, std::string reply_to,
                                       switching::MaintenanceModeConfigMsg message)
    : MmodeConfigTask(sender, std::move(correlation_id), std::move(reply_to), std::move(message)),
      context_(std::move(context)) {}

void MmodeConfigTaskQub::Apply() {
  if (!ValidateMmodeConfigMsg()) return;
  if (context_->files.PersistMmodeCfgToFile(message_) != 0) {
    ZLOG_WARN("[%s] the maintenance mode will not be known after a restart", __func__);
  }
  if (message_.state() == kLeave) {
    SetProxyMaintenanceMode(false);
    Leave(*context_);
  } else {
    TakeHealthDown(*context_);
    SetProxyMaintenanceMode(true);
    context_->manager.SetMaintenanceMode(true);
  }
}

bool MmodeConfigTaskQub::ValidateMmodeConfigMsg() {
  if (!message_.has_state()) {
    ZLOG_ERROR("41020", "[%s] Invalid mmode setting(null)", __func__);
    return Refuse(kBadRequest, "Invalid mmode setting - null");
  }
  switch (message_.state()) {
    case kLeave:
    case kEnter:
      return true;
    case kEnterChecked: {
      if (context_->manager.InMaintenanceMode()) return true;
      std::string reply;
      if (context_->lum.InvokeCommand("checkVmConnection()", "ok", &reply) == LumCommands::kSucceeded)
        return true;
      ZLOG_ERROR("42070", "[%s] Detected VIF connection to zem network: [%s]", __func__, reply.c_str());
      return Refuse(kVmConnected, "Detected VIF connection to  network");
    }
    default:
      ZLOG_ERROR("41020", "[%s] Invalid mmode setting", __func__);
      return Refuse(kBadRequest, "Invalid mmode setting");
  }
}

bool MmodeConfigTaskQub::Refuse(uint32_t code, const char* text) {
  error_code_ = std::max(error_code_, code);
  errors_.emplace_back(text);
  return false;
}

void MmodeConfigTaskQub::SetProxyMaintenanceMode(bool enabled) {
  const std::string word = enabled ? "enabled" : "disabled";
  const std::string command = std::string(kZemcli) + " --cmd \"set maintenance-mode " + word + "\"";
  std::string reply;
  const int code = context_->run(command, &reply);
  if (code == 0 && reply.find("Maintenance Mode: " + word) != std::string::npos) return;
  ZLOG_ERROR("41024", "Execution of cmd [%s] failed with return code [%d] and reply [%s]\n", command.c_str(),
             code, reply.c_str());
  Refuse(kProxyRefused, ("zemcli set maintenance-mode " + word + " failed with return code [" +
                         std::to_string(code) + "]  and reply [" + reply + "]")
                            .c_str());
}

switching::MaintenanceModeConfigResultMsg MmodeConfigTaskQub::BuildReply() {
  switching::MaintenanceModeConfigResultMsg reply;
  reply.set_transport_node_id(message_.transport_node_id());
  reply.set_id(message_.id());
  reply.set_revision(message_.revision());
  reply.set_state(MmodeResultState(*context_));
  reply.set_error_code(error_code_);
  std::string text;
  for (const std::string& error : errors_) text += (text.empty() ? "" : "; ") + error;
  reply.set_error_text(text);
  return reply;
}

uint32_t MmodeResultState(MmodeContext& context) { return context.manager.InMaintenanceMode() ? kIn : kOut; }

void RestoreMmode(MmodeContext& context) {
  const std::string& path = context.files.paths().mmode;
  if (!context.files.HasMmodeCfgFile()) {
    ZLOG_INFO("[%s] unable to retrieve persisted mmconfig file [%s]", "UpdateCache", path.c_str());
    return;
  }
  ZLOG_INFO("[%s] reading persisted mmconfig file [%s]", "UpdateCache", path.c_str());
  switching::MaintenanceModeConfigMsg stored;
  std::string error;
  if (!context.files.RetrieveMmodeCfgMsgFromFile(&stored, &error)) {
    ZLOG_ERROR("42012", "[%s] Failed to parse maintenance mode config file.\n", "UpdateCache");
    return;
  }
  if (!stored.has_state()) return;
  if (stored.state() == kLeave) {
    Leave(context);
  } else {
    // The proxy already knows that the node is in maintenance mode.
    TakeHealthDown(context);
    context.manager.SetMaintenanceMode(true);
  }
}

}  // namespace zem::zema
