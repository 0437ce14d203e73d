#include "platform/monitoring/event_source.h"

#include <cstring>
#include <memory>
#include <utility>

#include "platform/monitoring/source.h"

namespace {

constexpr size_t kMaxName = 256;
constexpr size_t kMaxContext = 64 * 1024;

}  // namespace

int EventSource_CreateEx(const char* name, uint16_t feature_id, EventSourceHandle* handle) {
  if (name == nullptr || handle == nullptr || *name == '\0' || std::strlen(name) > kMaxName)
    return kEventSourceInvalidArgument;
  *handle = std::make_unique<zem::monitoring::EventSource>(name, feature_id).release();
  return kEventSourceOk;
}

int EventSource_SetConfigCallback(EventSourceHandle handle, EventSourceConfigCallback callback) {
  if (handle == nullptr) return kEventSourceNoHandle;
  if (!callback) return kEventSourceInvalidArgument;
  handle->SetConfigCallback(std::move(callback));
  return kEventSourceOk;
}

int EventSource_SetPollCallback(EventSourceHandle handle, const uint16_t* event_types, size_t count,
                                EventSourcePollCallback callback) {
  if (handle == nullptr) return kEventSourceNoHandle;
  if (event_types == nullptr || count == 0 || !callback) return kEventSourceInvalidArgument;
  handle->SetPollCallback({event_types, event_types + count}, std::move(callback));
  return kEventSourceOk;
}

int EventSource_Start(EventSourceHandle handle) {
  if (handle == nullptr) return kEventSourceNoHandle;
  handle->Start();
  return kEventSourceOk;
}

void EventSource_Destroy(EventSourceHandle handle) {
  const std::unique_ptr<zem::monitoring::EventSource> ended(handle);
}

int EventSource_SetEventInstanceSample(EventSourceHandle handle, uint16_t event_type_id, uint64_t entity_high,
                                       uint64_t entity_low, bool raised, const char* context) {
  if (handle == nullptr) return kEventSourceNoHandle;
  const std::string text = context == nullptr ? "" : context;
  if (text.size() > kMaxContext) return kEventSourceInvalidArgument;
  return handle->SetSample(event_type_id, {entity_high, entity_low}, raised, text);
}

int EventSource_UpdateDeletedEntities(EventSourceHandle handle, uint16_t event_type_id,
                                      const EventSourceEntity* entities, size_t count) {
  if (handle == nullptr) return kEventSourceNoHandle;
  if (entities == nullptr && count != 0) return kEventSourceInvalidArgument;
  return handle->RemoveEntities(event_type_id, entities, count);
}
