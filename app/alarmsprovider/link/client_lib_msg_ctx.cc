#include "app/alarmsprovider/link/client_lib_msg_ctx.h"

#include "proto/monitoring/monitoring.pb.h"

namespace zem::Tarvik {

void SyncCtx::Complete(const orlane::zem::monitoring::MonitoringSyncResponseMsg& response) {
  if (!Claim()) return;
  if (response.has_status()) {
    has_result_ = true;
    status_ = response.status();
    if (response.has_context()) context_ = response.context();
  }
  done_(*this);
}

}  // namespace zem::Tarvik
