// Apart from the functions that it calls, so that a program may bring functions of its own.

#include <utility>

#include "platform/monitoring/event_source.h"

namespace zem::monitoring {

int EventSourceAPI::CreateEx(const std::string& name, uint16_t feature_id, EventSourceHandle* handle) {
  return EventSource_CreateEx(name.c_str(), feature_id, handle);
}

int EventSourceAPI::SetConfigCallback(EventSourceHandle handle, EventSourceConfigCallback callback) {
  return EventSource_SetConfigCallback(handle, std::move(callback));
}

int EventSourceAPI::SetPollCallback(EventSourceHandle handle, const std::vector<uint16_t>& event_types,
                                    EventSourcePollCallback callback) {
  return EventSource_SetPollCallback(handle, event_types.data(), event_types.size(), std::move(callback));
}

int EventSourceAPI::SetEventInstanceSample(EventSourceHandle handle, uint16_t event_type_id,
                                           const EventSourceEntity& entity, bool raised,
                                           const std::string& context) {
  return EventSource_SetEventInstanceSample(handle, event_type_id, entity.high, entity.low, raised,
                                            context.c_str());
}

}  // namespace zem::monitoring
