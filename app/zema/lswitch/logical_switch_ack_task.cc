#include "app/zema/lswitch/logical_switch_ack_task.h"

#include "app/zema/manager/mpa_message_sender.h"
#include "framework/log/log.h"
#include "platform/core/thread_name.h"
#include "proto/switching/logical_switch.pb.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr uint32_t kAcknowledged = 3;

}  // namespace

void LogicalSwitchBatchMsgTask::AddTask(Runnable* task) {
  const auto* const ack = dynamic_cast<const LogicalSwitchAckTask*>(task);
  if (ack == nullptr) return;
  entries_[ack->reply_to()][ack->uuid()] = ack->revision();
  if (sender_ == nullptr) sender_ = ack->sender();
  ZLOG_DEBUG("[%s] logical switch [%s] is added to the batch ACK task\n", __func__, ack->uuid().c_str());
}

void LogicalSwitchBatchMsgTask::Reset() {
  entries_.clear();
  sender_ = nullptr;
  ZLOG_DEBUG("[%s] logical switch batch ACK task is reset\n", __func__);
}

void LogicalSwitchBatchMsgTask::Run() {
  SetThreadName("zema:LSBMsg");
  for (const auto& [reply_to, switches] : entries_) {
    orlane::zem::switching::LogicalSwitchMsg message;
    for (const auto& [uuid, revision] : switches) {
      auto* const info = message.add_logical_switch_info();
      info->set_logical_switch_id(uuid);
      info->set_revision(revision);
      info->set_operation(kAcknowledged);
    }
    ZLOG_INFO("[%s] sending LogicalSwitch ACK to MP: [%s]\n", __func__, message.ShortDebugString().c_str());
    if (sender_ == nullptr || !sender_->LogicalSwitchReply(reply_to, message)) {
      ZLOG_WARN("[%s] %lu logical switches were not acknowledged to [%s]", __func__,
                static_cast<unsigned long>(switches.size()), reply_to.c_str());
    }
  }
}

}  // namespace zem::zema
