#include "app/zema/hostconfig/restore_task.h"

#include <utility>

#include "app/zema/covedb/config_files.h"
#include "app/zema/manager/mpa_message_sender.h"
#include "app/zema/proxy/lum_commands.h"
#include "framework/log/log.h"
#include "platform/core/thread_name.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::ChecksumMsg;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kChecksumCommand = "getAllOpaqueNetworkChecksum()";

}  // namespace

RestoreTask::RestoreTask(ConfigFiles& files, LumCommands& lum, MpaMessageSender* sender,
                         std::string correlation_id, std::string reply_to, ChecksumMsg message)
    : MpaMessageTask(sender, std::move(correlation_id), std::move(reply_to), std::move(message)),
      files_(files),
      lum_(lum) {}

void RestoreTask::Run() {
  SetThreadName("zema:restore");
  ChecksumMsg reply;
  orlane::zem::switching::HostConfigMsg config;
  std::string error;
  std::string checksum;
  if (files_.RetrieveHostConfigMsgFromFile(&config, &error)) checksum = ComputeChecksum(config);
  // The manager sends a configuration again when its checksum differs, so a stored one that is not in force
  // is given a different checksum.
  if (files_.apply_mark().not_in_force() && !checksum.empty())
    checksum = Sha256Hex("not in force " + checksum);
  if (checksum.empty()) {
    reply.set_id(message_.id());
  } else {
    reply.set_id(config.transport_node_id());
    reply.set_checksum(checksum);
    std::string networks;
    if (lum_.InvokeCommand(kChecksumCommand, "", &networks) != LumCommands::kSucceeded) {
      ZLOG_WARN("..[%s] failed to get all logical switches ..[%s]", __func__, networks.c_str());
      return;
    }
    if (!networks.empty()) reply.set_logical_switch_checksum(networks);
  }
  if (sender_ == nullptr) return;
  if (!sender_->SendRestoreReplyMsg(reply_to_, reply)) {
    ZLOG_WARN("[%s] the checksums were not sent", __func__);
  }
}

}  // namespace zem::zema
