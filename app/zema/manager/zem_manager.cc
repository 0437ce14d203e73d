#include "app/zema/manager/zem_manager.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>

#include "app/zema/state/realization_options.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "platform/core/clock.h"
#include "platform/core/condition.h"
#include "platform/timeline/step.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

using std::chrono::seconds;
using wft::WorkflowUtil;

constexpr LogSource kLog{"tarvik", "zema"};

// Never reset: an id is unique for the life of the process, even when the manager object is made again.
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

namespace {

// Releases the caller's monitor for the scope, so that other threads can take it.
class MonitorReleased {
 public:
  explicit MonitorReleased(Thread* waiter) : waiter_(waiter) { waiter_->Unlock(); }
  ~MonitorReleased() { waiter_->Lock(); }
  MonitorReleased(const MonitorReleased&) = delete;
  MonitorReleased& operator=(const MonitorReleased&) = delete;

 private:
  Thread* const waiter_;
};

}  // namespace

// What a call waits for.
struct ZemManager::Answer {
  std::mutex mutex;  // guards all below; never held with another lock
  Condition changed;
  std::unique_ptr<PortAttached> result;
  bool ended = false;  // no answer will come any more
};

// The texts in which the two calls differ.
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

ZemManager::ZemManager(VifSender& sender, HostIdentity& host, OptionsStore& options)
    : sender_(sender), host_(host), options_(options) {}

std::string ZemManager::RegisterRpc(const std::string& op_id, bool wait) {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  char number[16];
  std::snprintf(number, sizeof(number), "%u", next_rpc.fetch_add(1));
  std::string rpc_id = op_id + "-" + number;
  if (wait) {
    auto answer = std::make_shared<Answer>();
    answer->ended = ended_;
    pending_[rpc_id] = std::move(answer);
  }
  return rpc_id;
}

void ZemManager::Forget(const std::string& rpc_id) {
  std::shared_ptr<Answer> released;  // after the lock
  const Synchronizer lock(*this, __FILE__, __LINE__);
  const auto found = pending_.find(rpc_id);
  if (found == pending_.end()) return;
  released = std::move(found->second);
  pending_.erase(found);
}

void ZemManager::MP_AddVnicAttachment(const std::string& op_id, const std::string& vif_id,
                                      const std::string& switch_id, const std::string& port_id_hint,
                                      const std::string& gcf_path, Thread* waiter, bool wait,
                                      PortAttached* out) {
  // On a port group the port is sent to the manager; elsewhere the manager chooses the port, unless a resync
  // reports an existing one.
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
  const auto host_id = host_.id();
  if (!host_id) {
    ZLOG_ERROR(texts.no_host_code, "%s", texts.no_host_line);
    out->error = texts.no_host;
    TagError(out->error);
    return;
  }
  attachment.host_id = *host_id;
  attachment.rpc_id = RegisterRpc(op_id, wait);
  const std::string rpc_id = attachment.rpc_id;
  TagCall(attachment, op_id);
  const TimePoint start = Clock::Process().Now();
  const auto elapsed = [start] {
    return std::chrono::duration_cast<seconds>(Clock::Process().Now() - start).count();
  };
  const int timeout = options_.Snapshot().vif_operation_timeout;
  std::string message_id;
  bool sent = false;
  {
    timeline::Step step("asks the manager", rpc_id);
    sent = sender_.SendVIFAttachmentInfo(attachment, &message_id);
    step.Result(sent ? "sent" : "not sent", !sent);
  }
  // After such a long send no time is left for an answer.
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

bool ZemManager::WaitForResult(const std::string& rpc_id, Thread* waiter, int seconds, PortAttached* out) {
  const TimePoint deadline = Clock::Process().Now() + std::chrono::seconds(seconds);
  const auto answer = Find(rpc_id);
  timeline::Step step("waits for the manager's answer");
  {
    const MonitorReleased released(waiter);
    std::unique_lock lock(answer->mutex);
    answer->changed.WaitUntil(lock, deadline, [&] { return answer->result != nullptr || answer->ended; });
  }
  auto result = GetResultOfPendingRPC(rpc_id);
  if (!result) {
    step.Result("no answer", true);
    return false;
  }
  *out = std::move(*result);
  step.Result(out->error.empty() ? out->port_id : out->error, !out->error.empty());
  return true;
}

std::shared_ptr<ZemManager::Answer> ZemManager::Find(const std::string& rpc_id) {
  const Synchronizer lock(*this, __FILE__, __LINE__);
  const auto found = pending_.find(rpc_id);
  return found != pending_.end() ? found->second : nullptr;
}

void ZemManager::EndWaits() {
  std::list<std::shared_ptr<Answer>> answers;
  {
    const Synchronizer lock(*this, __FILE__, __LINE__);
    ended_ = true;
    for (const auto& [rpc_id, answer] : pending_) answers.push_back(answer);
  }
  for (const auto& answer : answers) {
    const std::lock_guard lock(answer->mutex);
    answer->ended = true;
    answer->changed.NotifyAll();
  }
}

Outcome ZemManager::MP_UpdateVnicAttachment(const std::string& op_id, const std::string& vif_id,
                                            const std::string& switch_id, const std::string& port_id,
                                            std::list<std::pair<std::string, std::string>> site_configs) {
  const auto host_id = host_.id();
  if (!host_id) {
    ZLOG_ERROR("41529", "Ignored vnic update as host is not setup for zem operation");
    return Outcome::Failed(Texts::Add().no_host);
  }
  const std::string rpc_id = RegisterRpc(op_id, false);
  if (!sender_.SendVIFUpdate({rpc_id, vif_id, switch_id, port_id, *host_id, std::move(site_configs)})) {
    ZLOG_ERROR("41541", "RPC call [%s] to ZEM management plane failed in sending.\n", rpc_id.c_str());
    return Outcome::Failed(Texts::Remove().send_failed);
  }
  ZLOG_INFO("Successfully sent VIF update to MP. Skip waiting for RPC reply of [%s]: port=%s, VIF=%s\n",
            rpc_id.c_str(), port_id.c_str(), vif_id.c_str());
  return Outcome::Done();
}

void ZemManager::SetResultToPendingRPC(const std::string& rpc_id, std::unique_ptr<PortAttached> result) {
  const auto answer = Find(rpc_id);
  if (!answer) {
    ZLOG_INFO("[%s] pending RPC for [%s] not found\n", __func__, rpc_id.c_str());
    return;
  }
  const std::lock_guard lock(answer->mutex);
  if (answer->result != nullptr) {
    ZLOG_WARN("[%s] pending RPC for [%s] has its answer already, this one is dropped\n", __func__,
              rpc_id.c_str());
    return;
  }
  answer->result = std::move(result);
  answer->changed.NotifyAll();
}

std::optional<PortAttached> ZemManager::GetResultOfPendingRPC(const std::string& rpc_id) {
  const auto answer = Find(rpc_id);
  if (!answer) {
    ZLOG_ERROR("41540", "[%s] pending RPC for [%s] not found\n", __func__, rpc_id.c_str());
    return std::nullopt;
  }
  const std::lock_guard lock(answer->mutex);
  if (answer->result == nullptr) return std::nullopt;
  return *answer->result;
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
