#include "app/alarmsprovider/link/client.h"

#include "app/alarmsprovider/link/client_lib_msg_ctx.h"

namespace zem::Tarvik {

orlane::zem::monitoring::MonitoringSyncRequestMsg SyncRequestOf(const SyncCtx& context) {
  orlane::zem::monitoring::MonitoringSyncRequestMsg request;
  request.set_feature_id(context.instance().feature_id);
  request.set_source_id(context.instance().source_id);
  request.set_event_type_id(context.instance().event_type_id);
  *request.mutable_entity_id() = context.instance().entity_id;
  return request;
}

}  // namespace zem::Tarvik
