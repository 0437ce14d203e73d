#include "tests/app/ctxteng/alarm/recorded_event_source.h"

#include <memory>
#include <mutex>

namespace zem::monitoring {

class EventSource {
 public:
  std::string name;
  EventSourceConfigCallback on_config;
  EventSourcePollCallback on_poll;
};

}  // namespace zem::monitoring

namespace zem::test {
namespace {

using Call = RecordedEventSource::Call;

struct State {
  std::mutex mutex;
  std::optional<Call> failing;
  std::vector<EventSourceConfig> configs;
  std::map<std::string, std::unique_ptr<monitoring::EventSource>> sources;
  std::map<std::string, std::map<std::pair<uint16_t, uint64_t>, RecordedEventSource::Instance>> instances;
};

State& TheState() {
  static State state;
  return state;
}

// 1 for a call that has to fail.
int Outcome(Call call) { return TheState().failing == call ? kEventSourceInvalidArgument : kEventSourceOk; }

}  // namespace

RecordedEventSource::RecordedEventSource() = default;

RecordedEventSource::~RecordedEventSource() {
  State& state = TheState();
  state.failing.reset();
  state.configs.clear();
  state.sources.clear();
  state.instances.clear();
}

void RecordedEventSource::Fail(std::optional<Call> call) {
  const std::lock_guard lock(TheState().mutex);
  TheState().failing = call;
}

void RecordedEventSource::SetConfigs(std::vector<EventSourceConfig> configs) {
  const std::lock_guard lock(TheState().mutex);
  TheState().configs = std::move(configs);
}

void RecordedEventSource::Configure(const std::string& source,
                                    const std::vector<EventSourceConfig>& configs) {
  TheState().sources.at(source)->on_config(configs);
}

void RecordedEventSource::Poll(const std::string& source, const std::vector<uint16_t>& event_types) {
  TheState().sources.at(source)->on_poll(event_types.data(), event_types.size());
}

std::vector<std::string> RecordedEventSource::Sources() const {
  const std::lock_guard lock(TheState().mutex);
  std::vector<std::string> names;
  for (const auto& [name, source] : TheState().sources) names.push_back(name);
  return names;
}

std::map<std::pair<uint16_t, uint64_t>, RecordedEventSource::Instance> RecordedEventSource::Instances(
    const std::string& source) const {
  const std::lock_guard lock(TheState().mutex);
  return TheState().instances[source];
}

RecordedEventSource::Instance RecordedEventSource::Get(const std::string& source, uint16_t event_type,
                                                       uint64_t entity_low) const {
  const std::lock_guard lock(TheState().mutex);
  auto& instances = TheState().instances[source];
  const auto found = instances.find({event_type, entity_low});
  return found == instances.end() ? Instance() : found->second;
}

}  // namespace zem::test

using zem::test::Call;
using zem::test::TheState;

int EventSource_CreateEx(const char* name, uint16_t /*feature_id*/, EventSourceHandle* handle) {
  const std::lock_guard lock(TheState().mutex);
  if (const int failed = zem::test::Outcome(Call::kCreate)) return failed;
  auto source = std::make_unique<zem::monitoring::EventSource>();
  source->name = name;
  *handle = source.get();
  TheState().sources[name] = std::move(source);
  return kEventSourceOk;
}

int EventSource_SetConfigCallback(EventSourceHandle handle, EventSourceConfigCallback callback) {
  const std::lock_guard lock(TheState().mutex);
  handle->on_config = std::move(callback);
  return zem::test::Outcome(Call::kConfigCallback);
}

int EventSource_SetPollCallback(EventSourceHandle handle, const uint16_t* /*event_types*/, size_t /*count*/,
                                EventSourcePollCallback callback) {
  const std::lock_guard lock(TheState().mutex);
  handle->on_poll = std::move(callback);
  return zem::test::Outcome(Call::kPollCallback);
}

int EventSource_Start(EventSourceHandle handle) {
  if (const int failed = zem::test::Outcome(Call::kStart)) return failed;
  handle->on_config(TheState().configs);
  return kEventSourceOk;
}

void EventSource_Destroy(EventSourceHandle handle) {
  if (handle == nullptr) return;
  const std::lock_guard lock(TheState().mutex);
  TheState().sources.erase(std::string(handle->name));
}

int EventSource_SetEventInstanceSample(EventSourceHandle handle, uint16_t event_type_id,
                                       uint64_t /*entity_high*/, uint64_t entity_low, bool raised,
                                       const char* context) {
  const std::lock_guard lock(TheState().mutex);
  if (const int failed = zem::test::Outcome(Call::kSet)) return failed;
  auto& instance = TheState().instances[handle->name][{event_type_id, entity_low}];
  instance.raised = raised;
  instance.context = context;
  ++instance.changes;
  return kEventSourceOk;
}

int EventSource_UpdateDeletedEntities(EventSourceHandle handle, uint16_t event_type_id,
                                      const EventSourceEntity* entities, size_t count) {
  const std::lock_guard lock(TheState().mutex);
  if (const int failed = zem::test::Outcome(Call::kDelete)) return failed;
  for (size_t i = 0; i < count; ++i) {
    TheState().instances[handle->name].erase({event_type_id, entities[i].low});
  }
  return kEventSourceOk;
}
