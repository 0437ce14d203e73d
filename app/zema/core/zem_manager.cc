#include "app/zema/core/zem_manager.h"

#include <atomic>
#include <chrono>
#include <cstdio>

#include "framework/log.h"
#include "platform/core/clock.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

using std::chrono::seconds;
using wft::WorkflowUtil;

constexpr LogSource kLog{"tarvik", "zema"};

// Never set back: an id is unique in the life of the process, whatever is made anew in it.
std::atomic<uint32_t> next_rpc{1};

constexpr const char* kPortGroupPrefix = "dvportgroup-";
constexpr const char* kSyncAttachPrefix = "sync-attach-";

bool BeginsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

void TagError(const std::string& error) {
  WorkflowUtil::SetCurSpanTag(wft::tags::kError, "true");
  WorkflowUtil::SetCurSpanTag(wft::tags::kErrorMessage, error);
}

void TagCall(const VifSender::Attachment& attachment, const std::string& op_id) {
  WorkflowUtil::SetCurSpanTag("opId", op_id);
  WorkflowUtil::SetCurSpanTag("hostId", attachment.host_id);
  WorkflowUtil::SetCurSpanTag("gcfPath", attachment.gcf_path);
  WorkflowUtil::SetCurSpanTag(wft::tags::kVif, attachment.vif_id);
  WorkflowUtil::SetCurSpanTag(wft::tags::kLogicalSwitch, attachment.switch_id);
  WorkflowUtil::SetCurSpanTag(wft::tags::kLogicalSwitchPort, attachment.port_id);
}

}  // namespace

// What the two calls say differently.
struct ZemManager::Texts {
  const char* span;
  const char* operation;
  const char* no_host_code;
  const char* no_host_line;
  const char* no_host;
  const char* send_failed;
  const char* timed_out;

  static constexpr Texts Add() {
    return {"ZemManager.MP_AddVnicAttachment",
            "MP_AddVnicAttachment",
            "41529",
            "Ignored adding vnic attachment for the host is not setup for zem operation",
            "this host is not setup for zem operation",
            kSendFailed,
            kTimedOut};
  }
  static constexpr Texts Remove() {
    return {"ZemManager.MP_RemoveVnicAttachment",
            "MP_RemoveVnicAttachment",
            "41530",
            "Ignored removing vnic attachment for the host is not setup for zem operation",
            "this host is not initialized for zem operation",
            "Failed to send VIF RPC request",
            "RPC call to ZEM management plane timout"};
  }
};

ZemManager::ZemManager(VifSender& sender, Settings settings)
    : sender_(sender), settings_(std::move(settings)) {}

std::string ZemManager::RegisterRpc(const std::string& op_id, Thread* waiter, bool wait) {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  char number[16];
  std::snprintf(number, sizeof(number), "%u", next_rpc.fetch_add(1));
  std::string rpc_id = op_id + "-" + number;
  if (wait) pending_[rpc_id] = Pending{waiter, nullptr};
  return rpc_id;
}

void ZemManager::Forget(const std::string& rpc_id) {
  std::unique_ptr<PortAttached> released;  // after the lock
  const Synchronizer lock(*this, __FILE__, __LINE__);
  const auto found = pending_.find(rpc_id);
  if (found == pending_.end()) return;
  released = std::move(found->second.result);
  pending_.erase(found);
}

void ZemManager::MP_AddVnicAttachment(const std::string& op_id, const std::string& vif_id,
                                      const std::string& switch_id, const std::string& port_id_hint,
                                      const std::string& gcf_path, Thread* waiter, bool wait,
                                      PortAttached* out) {
  // On a port group the manager is told the port; elsewhere it chooses, unless a resync says what is there.
  const bool tell_port = BeginsWith(switch_id, kPortGroupPrefix) || BeginsWith(op_id, kSyncAttachPrefix);
  Call(Texts::Add(), {true, "", vif_id, switch_id, tell_port ? port_id_hint : "", "", gcf_path}, op_id,
       waiter, wait, out);
}

void ZemManager::MP_RemoveVnicAttachment(const std::string& op_id, const std::string& vif_id,
                                         const std::string& switch_id, const std::string& port_id,
                                         const std::string& gcf_path, Thread* waiter, bool wait,
                                         PortAttached* out) {
  Call(Texts::Remove(), {false, "", vif_id, switch_id, port_id, "", gcf_path}, op_id, waiter, wait, out);
}

void ZemManager::Call(const Texts& texts, VifSender::Attachment attachment, const std::string& op_id,
                      Thread* waiter, bool wait, PortAttached* out) {
  const auto span = WorkflowUtil::StartChildSpan(texts.span, wft::kTraceInfo);
  out->op_id = op_id;
  const auto host_id = settings_.host_id();
  if (!host_id) {
    ZLOG_ERROR(texts.no_host_code, "%s", texts.no_host_line);
    out->error = texts.no_host;
    TagError(out->error);
    return;
  }
  attachment.host_id = *host_id;
  attachment.rpc_id = RegisterRpc(op_id, waiter, wait);
  const std::string rpc_id = attachment.rpc_id;
  TagCall(attachment, op_id);
  const TimePoint start = Clock::Process().Now();
  const auto elapsed = [start] {
    return std::chrono::duration_cast<seconds>(Clock::Process().Now() - start).count();
  };
  const int timeout = settings_.vif_operation_timeout();
  std::string message_id;
  const bool sent = sender_.SendVIFAttachmentInfo(attachment, &message_id);
  // A send that took that long leaves no time for an answer.
  if (!sent || elapsed() > timeout) {
    ZLOG_ERROR("41541", "[%s] RPC call [%s] to ZEM management plane failed in sending.\n", texts.operation,
               rpc_id.c_str());
    out->error = texts.send_failed;
  } else if (!wait) {
    ZLOG_INFO("[%s] Skip waiting for ZEM RPC reply of [%s]: msgId=%s, VIF=%s, gcf=%s\n", texts.operation,
              rpc_id.c_str(), message_id.c_str(), attachment.vif_id.c_str(), attachment.gcf_path.c_str());
    return;
  } else {
    if (WaitForResult(rpc_id, waiter, static_cast<int>(timeout - elapsed()), out)) {
      ZLOG_INFO("[%s] RPC call [%s] to ZEM management plane completed in [%ld] sec\n", texts.operation,
                rpc_id.c_str(), static_cast<long>(elapsed()));
    } else {
      ZLOG_ERROR("41542", "[%s] RPC call [%s] to ZEM management plane timout\n", texts.operation,
                 rpc_id.c_str());
      out->error = texts.timed_out;
    }
  }
  if (!out->error.empty()) TagError(out->error);
  if (wait) Forget(rpc_id);
}

// The thread may be notified for other reasons, such as its own end: only an answer is an answer.
bool ZemManager::WaitForResult(const std::string& rpc_id, Thread* waiter, int seconds, PortAttached* out) {
  const TimePoint deadline = Clock::Process().Now() + std::chrono::seconds(seconds);
  while (!ended()) {
    // A wait of 0 seconds would have no end.
    const auto left = std::chrono::ceil<std::chrono::seconds>(deadline - Clock::Process().Now());
    if (left.count() <= 0 || waiter->Wait(static_cast<int>(left.count())) != 1) return false;
    if (auto result = GetResultOfPendingRPC(rpc_id)) {
      *out = std::move(*result);
      return true;
    }
  }
  return false;
}

bool ZemManager::ended() {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  return ended_;
}

// A caller that has not yet begun to wait holds its monitor until it has, or sees the end before.
void ZemManager::EndWaits() {
  std::list<Thread*> waiters;
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    ended_ = true;
    for (const auto& [rpc_id, pending] : pending_) {
      if (pending.waiter != nullptr) waiters.push_back(pending.waiter);
    }
  }
  for (Thread* const waiter : waiters) {
    waiter->Lock();
    waiter->Notify();
    waiter->Unlock();
  }
}

bool ZemManager::MP_UpdateVnicAttachment(const std::string& op_id, const std::string& vif_id,
                                         const std::string& switch_id, const std::string& port_id,
                                         std::list<std::pair<std::string, std::string>> site_configs,
                                         std::string* error) {
  const auto host_id = settings_.host_id();
  if (!host_id) {
    ZLOG_ERROR("41529", "Ignored vnic update as host is not setup for zem operation");
    *error = Texts::Add().no_host;
    return false;
  }
  const std::string rpc_id = RegisterRpc(op_id, nullptr, false);
  if (!sender_.SendVIFUpdate({rpc_id, vif_id, switch_id, port_id, *host_id, std::move(site_configs)})) {
    ZLOG_ERROR("41541", "RPC call [%s] to ZEM management plane failed in sending.\n", rpc_id.c_str());
    *error = Texts::Remove().send_failed;
    return false;
  }
  ZLOG_INFO("Successfully sent VIF update to MP. Skip waiting for RPC reply of [%s]: port=%s, VIF=%s\n",
            rpc_id.c_str(), port_id.c_str(), vif_id.c_str());
  return true;
}

void ZemManager::SetResultToPendingRPC(const std::string& rpc_id, std::unique_ptr<PortAttached> result) {
  Thread* waiter = nullptr;
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    const auto found = pending_.find(rpc_id);
    if (found == pending_.end()) {
      ZLOG_INFO("[%s] pending RPC for [%s] not found\n", __func__, rpc_id.c_str());
      return;
    }
    found->second.result = std::move(result);
    waiter = found->second.waiter;
  }
  if (waiter == nullptr) return;
  waiter->Lock();
  waiter->Notify();
  waiter->Unlock();
}

std::optional<PortAttached> ZemManager::GetResultOfPendingRPC(const std::string& rpc_id) {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  const auto found = pending_.find(rpc_id);
  if (found == pending_.end()) {
    ZLOG_ERROR("41540", "[%s] pending RPC for [%s] not found\n", __func__, rpc_id.c_str());
    return std::nullopt;
  }
  if (found->second.result == nullptr) return std::nullopt;
  return *found->second.result;
}

void ZemManager::SetMaintenanceMode(bool on) {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  maintenance_mode_ = on;
}

bool ZemManager::InMaintenanceMode() {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  return maintenance_mode_;
}

size_t ZemManager::pending() {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  return pending_.size();
}

}  // namespace zem::zema
