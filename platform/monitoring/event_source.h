#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zem::monitoring {
class EventSource;
}

/// A source of alarm events of one feature.
using EventSourceHandle = zem::monitoring::EventSource*;

/// What the library's functions return.
enum EventSourceStatus : int {
  kEventSourceOk = 0,
  kEventSourceInvalidArgument = 1,
  kEventSourceNotStarted = 2,
  /// The source has as many instances as it may have.
  kEventSourceFull = 3,
  kEventSourceNoHandle = 4,
};

/// The configuration of one event.
struct EventSourceConfig {
  uint16_t event_type_id = 0;
  bool is_disabled = false;
  uint32_t threshold = 0;
};

/// The entity of an instance, the two halves of its uuid read as big-endian numbers.
struct EventSourceEntity {
  uint64_t high = 0;
  uint64_t low = 0;
};

using EventSourceConfigCallback = std::function<void(const std::vector<EventSourceConfig>& configs)>;
using EventSourcePollCallback = std::function<void(const uint16_t* event_types, size_t count)>;

/// The functions below return an EventSourceStatus.
///
/// Threads: any thread; one source's Create, Set...Callback, Start and Destroy one after the other. Callbacks
/// run on a thread of the source and may block, except the first one, which Start calls.

/// Makes a source; `name` (1 to 256 bytes) is its source id.
[[nodiscard]] int EventSource_CreateEx(const char* name, uint16_t feature_id, EventSourceHandle* handle);

/// Before Start.  Start calls the callback with the configuration of all events of the feature before it
/// returns; later calls have the events that changed.
[[nodiscard]] int EventSource_SetConfigCallback(EventSourceHandle handle, EventSourceConfigCallback callback);

/// Before Start.  The callback is called once a minute, and sets the samples of these events.
[[nodiscard]] int EventSource_SetPollCallback(EventSourceHandle handle, const uint16_t* event_types,
                                              size_t count, EventSourcePollCallback callback);

/// Begins to report.  Does not wait for the provider.
[[nodiscard]] int EventSource_Start(EventSourceHandle handle);

/// Ends the source: no callback runs when this returns.  What the provider has not taken is lost.  Not from a
/// callback.  A null handle is ignored.
void EventSource_Destroy(EventSourceHandle handle);

/// Sets the state of an instance.  `context` is JSON of at most 64 KiB, and may be null.  Does not wait.
[[nodiscard]] int EventSource_SetEventInstanceSample(EventSourceHandle handle, uint16_t event_type_id,
                                                     uint64_t entity_high, uint64_t entity_low, bool raised,
                                                     const char* context);

/// The entities are gone: their instances of the event do not stand any more.
[[nodiscard]] int EventSource_UpdateDeletedEntities(EventSourceHandle handle, uint16_t event_type_id,
                                                    const EventSourceEntity* entities, size_t count);

namespace zem::monitoring {

/// The same functions for C++ callers that hold the source by its class.
class EventSourceAPI {
 public:
  [[nodiscard]] static int CreateEx(const std::string& name, uint16_t feature_id, EventSourceHandle* handle);
  [[nodiscard]] static int SetConfigCallback(EventSourceHandle handle, EventSourceConfigCallback callback);
  [[nodiscard]] static int SetPollCallback(EventSourceHandle handle, const std::vector<uint16_t>& event_types,
                                           EventSourcePollCallback callback);
  [[nodiscard]] static int SetEventInstanceSample(EventSourceHandle handle, uint16_t event_type_id,
                                                  const EventSourceEntity& entity, bool raised,
                                                  const std::string& context);
};

}  // namespace zem::monitoring
