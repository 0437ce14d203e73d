#include "app/zema/hostconfig/host_config_task.h"

#include <exception>
#include <optional>

#include "app/zema/hostconfig/host_config_timeline.h"
#include "app/zema/manager/mpa_message_sender.h"
#include "platform/metrics/process_metrics.h"

namespace zem::zema {

void HostConfigTask::Run() {
  // A configuration of the manager has begun with its message; the host's own tools have none.
  timeline::OperationPtr operation = timeline::Current();
  std::optional<timeline::Scope> scope;
  if (!operation) {
    operation = BeginHostConfig(message_, "of the host's own tools");
    scope.emplace(operation);
  }
  try {
    const metrics::CallTimer timer(metrics::MetricId::kHostConfigs, {});
    ApplyHostConfig(false, false);
  } catch (const std::exception& e) {
    timeline::Finish(operation, e.what());
    throw;
  }
  if (!errors_.texts().empty() || errors_.code() != 0)
    metrics::CounterOf(metrics::MetricId::kHostConfigFailures).Add();
  if (sender_ != nullptr) sender_->HostConfigReply(correlation_id_, reply_to_, BuildReply());
  timeline::Finish(operation, ErrorText());
}

std::string HostConfigTask::ErrorText() const {
  std::string text;
  for (const std::string& error : errors_.texts()) text += error + "; ";
  if (text.empty() && errors_.code() != 0) text = "ErrorCode=" + std::to_string(errors_.code());
  return text;
}

HostConfigTask::HostConfigMsg HostConfigTask::BuildReply() {
  HostConfigMsg reply = message_;
  reply.set_error_text(ErrorText());
  reply.set_error_code(errors_.code());
  reply.clear_endpoint_ids();
  for (const uint32_t id : endpoint_ids_) reply.add_endpoint_ids(id);
  return reply;
}

}  // namespace zem::zema
