#include "app/zema/lswitch/logical_switch_msg_task.h"

#include <algorithm>
#include <utility>

#include "app/zema/covedb/covedb_handler.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"

namespace zem::zema {
namespace {

using wft::WorkflowUtil;

constexpr LogSource kLog{"tarvik", "zema"};

// Operations with this number or a higher one are removals.
constexpr uint32_t kFirstRemoval = 2;

void Trace(const LogicalSwitchMsgTask::Info& info, const char* operation) {
  WorkflowUtil::SetCurSpanTag("lsName", info.name());
  WorkflowUtil::SetCurSpanTag("lsPath", info.path());
  WorkflowUtil::SetCurSpanTag("lsrevision", std::to_string(info.revision()));
  WorkflowUtil::SetCurSpanTag(wft::tags::kOperation, operation);
}

}  // namespace

LogicalSwitchMsgTask::LogicalSwitchMsgTask(const LogicalSwitchContext& context, MpaMessageSender* sender,
                                           std::string reply_to, uint64_t barrier, uint64_t generation)
    : reply_to_(std::move(reply_to)),
      sender_(sender),
      barrier_(barrier),
      generation_(generation),
      epoch_(context.fence.epoch()) {}

std::unique_ptr<LogicalSwitchMsgTask> LogicalSwitchMsgTask::CreateTask(
    const LogicalSwitchContext& context, const orlane::zem::switching::LogicalSwitchMsg& message,
    MpaMessageSender* sender, const std::string& reply_to, uint64_t barrier,
    std::optional<uint64_t> generation) {
  if (!context.hypervisor) {
    ZLOG_INFO("[%s] skip LogicalSwitchMsg for non-QUB host\n", __func__);
    return nullptr;
  }
  const auto span = WorkflowUtil::StartChildSpan("LogicalSwitchMsgTask.CreateTask", wft::kTraceInfo);
  const bool of_store = reply_to == CoveDbHandler::kReplyTo;
  const uint64_t present = of_store ? context.fence.generation() : context.fence.manager_generation();
  std::unique_ptr<LogicalSwitchMsgTask> task(
      new LogicalSwitchMsgTask(context, sender, reply_to, barrier, generation.value_or(present)));
  task->trace_info_ = span.context();
  bool absorbed = false;
  for (const Info& info : message.logical_switch_info()) {
    absorbed = AddLogicalSwitchUpdate(context, task.get(), info) || absorbed;
  }
  if (absorbed) return task;
  ZLOG_INFO("[%s] no LS update is detected in the LogicalSwitchMsg, skipped", __func__);
  return nullptr;
}

bool LogicalSwitchMsgTask::AddLogicalSwitchUpdate(const LogicalSwitchContext& context,
                                                  LogicalSwitchMsgTask* task, const Info& info) {
  const auto host_id = info.target_host_id_size() > 0 ? context.host.id() : std::nullopt;
  if (host_id && std::find(info.target_host_id().begin(), info.target_host_id().end(), *host_id) ==
                     info.target_host_id().end()) {
    ZLOG_INFO("[%s] not a targeted hosts for this LS update, bail out without ACK\n", __func__);
    return false;
  }
  if (!info.has_logical_switch_id()) {
    ZLOG_ERROR("42037", "[%s] logical switch uuid is not set\n", __func__);
    return false;
  }
  if (!info.has_revision()) {
    ZLOG_ERROR("42035", "[%s] logical switch revision is not set, skip task\n", __func__);
    return false;
  }
  if (!info.has_transport_zone_id()) {
    ZLOG_ERROR("42036", "[%s] logical switch's transport zone  is not set, skip task\n", __func__);
    return false;
  }
  const std::string& uuid = info.logical_switch_id();
  if (info.operation() >= kFirstRemoval) {
    Trace(info, "DELETE");
    task->deletes_.insert(uuid);
    ZLOG_DEBUG("[%s] added LS [%s] op:delete to LS task [%p]", __func__, uuid.c_str(),
               static_cast<void*>(task));
    return true;
  }
  Trace(info, "CREATE/UPDATE");
  Switches& switches = task->apply_[info.transport_zone_id()];
  const auto present = switches.find(uuid);
  const int32_t revision = present == switches.end() ? 0 : present->second.revision;
  if (revision >= info.revision()) {
    ZLOG_INFO("[%s] skipping LS [%s] stale revision [%d] update (currently %d)", __func__, uuid.c_str(),
              info.revision(), revision);
    if (switches.empty()) task->apply_.erase(info.transport_zone_id());
    return false;
  }
  switches[uuid] = Record{info.name(), info.path(), info.revision()};
  ZLOG_DEBUG("[%s] added LS [%s] revision [%d] op:apply to LS task [%p]", __func__, uuid.c_str(),
             info.revision(), static_cast<void*>(task));
  return true;
}

}  // namespace zem::zema
