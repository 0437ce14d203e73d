#include "app/ctxteng/alarm/alarm_manager.h"

#include <algorithm>
#include <chrono>
#include <numeric>
#include <utility>

#include "app/ctxteng/alarm/entity_id.h"
#include "app/ctxteng/alarm/json_text.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr zem::Duration kRound = std::chrono::minutes(1);
// From here on a threshold is no share in percent, and the context of a value says nothing.
constexpr uint32_t kPercentThresholdEnd = 100;

std::string EntityContext(const std::string& entity_id) { return JsonText({{"entity_id", entity_id}}); }

}  // namespace

AlarmManager::AlarmManager(uint16_t feature_id, std::string name, std::vector<AlarmEvent> events,
                           std::function<void()> interrupt)
    : feature_id_(feature_id),
      name_(std::move(name)),
      events_(std::move(events)),
      interrupt_(std::move(interrupt)) {
  for (const AlarmEvent& event : events_) run_[event.event_type].threshold = event.threshold;
}

AlarmManager::~AlarmManager() { Stop(); }

void AlarmManager::Start() {
  EventSourceHandle handle = nullptr;
  if (EventSource_CreateEx(name_.c_str(), feature_id_, &handle) != kEventSourceOk) {
    ZLOG_CTX_ERROR(804, "AlarmMgr: Failed to create alarm handle for %u ", feature_id_);
    handle = nullptr;
  } else if (EventSource_SetConfigCallback(handle, [this](const auto& configs) { OnConfig(configs); }) !=
             kEventSourceOk) {
    ZLOG_CTX_ERROR(
        806, "AlarmMgr: Failed to register callback to receive event configuration changes for feature %u",
        feature_id_);
    EventSource_Destroy(std::exchange(handle, nullptr));
  } else {
    ZLOG_INFO("AlarmMgr: Successfully registered callback to receive event configuration changes for %u",
              feature_id_);
    if (EventSource_Start(handle) != kEventSourceOk) {
      ZLOG_CTX_ERROR(805, "AlarmMgr: Failed to start alarm service for %u", feature_id_);
      EventSource_Destroy(std::exchange(handle, nullptr));
    } else {
      ZLOG_INFO("AlarmMgr: Successfully started alarm service for %u", feature_id_);
    }
  }
  if (handle == nullptr) ZLOG_INFO("AlarmMgr: Alarm service is not started");
  {
    const std::lock_guard lock(handle_mutex_);
    handle_ = handle;
  }
  stop_.Reset();
  zem::NativeThread::Options options;
  options.name = "ctxt:alarm";
  worker_ = zem::NativeThread(std::move(options), [this] { Work(); });
}

void AlarmManager::Stop() {
  stop_.Stop();
  if (interrupt_) interrupt_();
  if (worker_.joinable()) worker_.Join();
  EventSourceHandle handle = nullptr;
  {
    const std::lock_guard lock(handle_mutex_);
    std::swap(handle, handle_);
  }
  EventSource_Destroy(handle);
}

void AlarmManager::Work() {
  const zem::LoopThread loop("ctxt:alarm", zem::LoopKind::kWorker);
  for (uint64_t round = 1; !stop_.WaitFor(kRound); ++round) RunRound(round);
  ZLOG_INFO("AlarmMgr: alarmMgr stopped");
}

void AlarmManager::RunRound(uint64_t round) {
  const zem::LoopStep step("samples");
  const zem::TimePoint start = zem::Clock::Process().Now();
  for (const AlarmEvent& event : events_) {
    const std::vector<std::string> entities = TakeDue(event, start);
    for (const std::string& entity_id : entities) {
      if (stop_.stopped()) return;
      if (const auto sample = event.sample(round)) Evaluate(event, entity_id, *sample);
    }
  }
}

std::vector<std::string> AlarmManager::TakeDue(const AlarmEvent& event, zem::TimePoint round_start) {
  if (!event.sample) return {};
  const std::lock_guard lock(run_mutex_);
  Run& run = run_[event.event_type];
  ZLOG_DEBUG("AlarmMgr: processing samples for eventTypeId: %u", event.event_type);
  if (run.disabled) {
    ZLOG_DEBUG("AlarmMgr: eventType %u is disabled", event.event_type);
    for (auto& [entity_id, samples] : run.samples) samples.clear();
    return {};
  }
  if (run.next_due > round_start) return {};
  uint32_t interval = event.interval_sec;
  if (!event.intervals_sec.empty()) {
    interval = event.intervals_sec[run.interval % event.intervals_sec.size()];
    run.interval = (run.interval + 1) % event.intervals_sec.size();
  }
  // Counted from the round's start: a slow round must not make the next one too early for the event.
  run.next_due = round_start + std::chrono::seconds(interval);
  ZLOG_DEBUG("AlarmMgr: start collecting samples for the number of %d entities",
             static_cast<int>(run.samples.size()));
  std::vector<std::string> entities;
  for (const auto& [entity_id, samples] : run.samples) entities.push_back(entity_id);
  return entities;
}

void AlarmManager::Evaluate(const AlarmEvent& event, const std::string& entity_id, uint32_t sample) {
  std::vector<uint32_t> values;
  uint32_t threshold = 0;
  {
    const std::lock_guard lock(run_mutex_);
    Run& run = run_[event.event_type];
    const auto samples = run.samples.find(entity_id);
    // Removed or disabled while the sample was taken.
    if (run.disabled || samples == run.samples.end()) return;
    samples->second.push_back(sample);
    if (samples->second.size() < event.samples) return;
    values.swap(samples->second);
    threshold = run.threshold;
  }
  const auto high = std::ranges::count_if(values, [&](uint32_t value) { return value >= threshold; });
  const bool raised = static_cast<uint64_t>(high) * 100 / values.size() >= event.percent;
  const uint64_t sum = std::accumulate(values.begin(), values.end(), uint64_t{0});
  const auto mean = static_cast<uint32_t>(sum / values.size());
  const std::string context = ContextOf(event, entity_id, mean, threshold);
  ZLOG_INFO("AlarmMgr: featureCtxt: %s for Alarm provider", context.c_str());
  if (Set(entity_id, event.event_type, context, raised) == kEventSourceOk) {
    ZLOG_INFO("AlarmMgr: Event set successfully for eventTypeId: %u", event.event_type);
  } else {
    ZLOG_ERROR("ERR_CTXT_ALARM_SET_ALARM_INST", "AlarmMgr: Cannot set alarm instance for eventTypeId: %u",
               event.event_type);
  }
}

std::string AlarmManager::ContextOf(const AlarmEvent& event, const std::string& entity_id, uint32_t value,
                                    uint32_t threshold) const {
  return event.context ? event.context(entity_id, value, threshold) : EntityContext(entity_id);
}

int AlarmManager::Set(const std::string& entity_id, uint16_t event_type, const std::string& context,
                      bool raised) {
  const auto id = ParseEntityId(entity_id);
  if (!id) return kEventSourceInvalidArgument;
  const std::lock_guard lock(handle_mutex_);
  if (handle_ == nullptr) return kEventSourceNoHandle;
  return EventSource_SetEventInstanceSample(handle_, event_type, id->high, id->low, raised, context.c_str());
}

int AlarmManager::PostAlarm(const std::string& entity_id, uint16_t event_type, const std::string& context,
                            bool raised) {
  ZLOG_INFO("AlarmMgr: entity id %s event type %u context: %s raised: %s", entity_id.c_str(), event_type,
            context.c_str(), raised ? "Yes" : "No");
  const int status = Set(entity_id, event_type, context, raised);
  if (status == kEventSourceOk) {
    ZLOG_INFO("AlarmMgr: Raise Alarm succeeded");
  } else if (status == kEventSourceNoHandle) {
    ZLOG_WARN("%s: %d: Event Source Handle Null", "PostAlarm", status);
  } else {
    ZLOG_WARN("AlarmMgr: Raise Alarm failed, status: %d", status);
  }
  return status;
}

void AlarmManager::ResetAllAlarms() {
  const std::string node(kNodeEntity);
  for (const AlarmEvent& event : events_) {
    uint32_t threshold = 0;
    {
      const std::lock_guard lock(run_mutex_);
      const Run& run = run_[event.event_type];
      if (run.disabled) continue;
      threshold = run.threshold;
    }
    const std::string context = threshold == 0 || threshold >= kPercentThresholdEnd
                                    ? EntityContext(node)
                                    : ContextOf(event, node, 0, threshold);
    const int status = Set(node, event.event_type, context, false);
    if (status == kEventSourceNoHandle) continue;
    ZLOG_INFO("AlarmMgr: Reset Alarms featureCtxt: %s for feature id: %u event type: %u", context.c_str(),
              feature_id_, event.event_type);
    if (status == kEventSourceOk) {
      ZLOG_INFO("AlarmMgr: Reset Alarms succeeded event id: %u", event.event_type);
    } else {
      ZLOG_WARN("AlarmMgr: Reset Alarm failed event id: %u status: %d", event.event_type, status);
    }
  }
}

void AlarmManager::AddEntity(const std::string& entity_id, uint16_t event_type) {
  const bool all = entity_id == kNodeEntity && event_type == 0;
  const std::lock_guard lock(run_mutex_);
  for (auto& [type, run] : run_) {
    if (!all && type != event_type) continue;
    if (!run.samples.try_emplace(entity_id).second) continue;
    ZLOG_INFO("AlarmMgr: entity id %s is added to event type %u", entity_id.c_str(), type);
  }
}

void AlarmManager::RemoveEntity(const std::string& entity_id, uint16_t event_type) {
  const bool all = entity_id == kNodeEntity && event_type == 0;
  const std::lock_guard lock(run_mutex_);
  for (auto& [type, run] : run_) {
    if (!all && type != event_type) continue;
    if (run.samples.erase(entity_id) == 0) continue;
    ZLOG_INFO("AlarmMgr: entity id %s is removed from event type %u", entity_id.c_str(), type);
  }
}

void AlarmManager::UpdateEventConfig(uint16_t event_type, bool disabled, uint32_t threshold) {
  const std::lock_guard lock(run_mutex_);
  const auto run = run_.find(event_type);
  // An event of the feature's other source, or of another kind of host.
  if (run == run_.end()) return;
  run->second.disabled = disabled;
  run->second.threshold = threshold;
  ZLOG_INFO("AlarmMgr: Event config update for eventTypeId %u", event_type);
}

bool AlarmManager::IsDisabled(uint16_t event_type) const {
  const std::lock_guard lock(run_mutex_);
  const auto run = run_.find(event_type);
  return run != run_.end() && run->second.disabled;
}

void AlarmManager::OnConfig(const std::vector<EventSourceConfig>& configs) {
  ZLOG_INFO("AlarmMgr: Config change for featureID %u", feature_id_);
  for (const EventSourceConfig& config : configs) {
    UpdateEventConfig(config.event_type_id, config.is_disabled, config.threshold);
  }
}

}  // namespace Ctxt
