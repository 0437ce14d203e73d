#include "app/zema/hostconfig/host_config_task.h"

#include "app/zema/manager/mpa_message_sender.h"
#include "platform/metrics/process_metrics.h"

namespace zem::zema {

void HostConfigTask::Run() {
  {
    const metrics::CallTimer timer(metrics::MetricId::kHostConfigs, {});
    ApplyHostConfig(false, false);
  }
  if (!errors_.texts().empty() || errors_.code() != 0)
    metrics::CounterOf(metrics::MetricId::kHostConfigFailures).Add();
  if (sender_ == nullptr) return;
  sender_->HostConfigReply(correlation_id_, reply_to_, BuildReply());
}

HostConfigTask::HostConfigMsg HostConfigTask::BuildReply() {
  HostConfigMsg reply = message_;
  std::string text;
  for (const std::string& error : errors_.texts()) text += error + "; ";
  if (text.empty() && errors_.code() != 0) text = "ErrorCode=" + std::to_string(errors_.code());
  reply.set_error_text(text);
  reply.set_error_code(errors_.code());
  reply.clear_endpoint_ids();
  for (const uint32_t id : endpoint_ids_) reply.add_endpoint_ids(id);
  return reply;
}

}  // namespace zem::zema
