#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/ctxteng/alarm/alarm_registry.h"
#include "platform/core/clock.h"
#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"
#include "platform/monitoring/event_source.h"

namespace Ctxt {

/// One event of a feature: how it is sampled, and when it is raised.
struct AlarmEvent {
  uint16_t event_type = 0;
  /// Takes a sample in a round (1, 2, ...); nothing when there is none that counts.  Empty for an event that
  /// is only posted.  Called without a lock; it may run a command of the host.
  std::function<std::optional<uint32_t>(uint64_t round)> sample;
  /// The context of an alarm of this value.  Empty: the entity's id alone.
  std::function<std::string(const std::string& entity_id, uint32_t value, uint32_t threshold)> context;
  /// The alarm is decided from so many samples.
  uint64_t samples = 1;
  /// It is raised when at least this share of them reaches the threshold.
  uint32_t percent = 100;
  uint32_t threshold = 0;
  uint32_t interval_sec = 60;
  /// When not empty, these intervals follow each other in turn instead.
  std::vector<uint32_t> intervals_sec;
};

/// Samples a feature's events once a minute and reports them through an event source.
///
/// Sampling may run commands of the host for seconds, so a round copies what is due under the mutex, samples
/// and reports without it, and keeps the values under it.
class AlarmManager : public IAlarmMgr {
 public:
  /// `name` is the source id at the alarms provider.  `interrupt` (may be empty) ends a sample that is being
  /// taken; Stop calls it.
  AlarmManager(uint16_t feature_id, std::string name, std::vector<AlarmEvent> events,
               std::function<void()> interrupt);
  ~AlarmManager() override;
  AlarmManager(const AlarmManager&) = delete;
  AlarmManager& operator=(const AlarmManager&) = delete;

  uint16_t feature_id() const override { return feature_id_; }
  void Start() override;
  void Stop() override;
  void ResetAllAlarms() override;
  void AddEntity(const std::string& entity_id, uint16_t event_type) override;
  void RemoveEntity(const std::string& entity_id, uint16_t event_type) override;
  int PostAlarm(const std::string& entity_id, uint16_t event_type, const std::string& context,
                bool raised) override;
  void UpdateEventConfig(uint16_t event_type, bool disabled, uint32_t threshold) override;
  bool IsDisabled(uint16_t event_type) const override;

 private:
  struct Run {
    bool disabled = false;
    uint32_t threshold = 0;
    zem::TimePoint next_due;
    size_t interval = 0;                                   // index of the next one of the event's list
    std::map<std::string, std::vector<uint32_t>> samples;  // by entity
  };

  void Work();
  void RunRound(uint64_t round);
  // Empty unless the event is due; moves its next time on.
  std::vector<std::string> TakeDue(const AlarmEvent& event, zem::TimePoint round_start);
  void Evaluate(const AlarmEvent& event, const std::string& entity_id, uint32_t sample);
  void OnConfig(const std::vector<EventSourceConfig>& configs);
  int Set(const std::string& entity_id, uint16_t event_type, const std::string& context, bool raised);
  std::string ContextOf(const AlarmEvent& event, const std::string& entity_id, uint32_t value,
                        uint32_t threshold) const;

  const uint16_t feature_id_;
  const std::string name_;
  const std::vector<AlarmEvent> events_;
  const std::function<void()> interrupt_;

  mutable std::mutex run_mutex_;
  std::map<uint16_t, Run> run_;  // by event type
  std::mutex handle_mutex_;      // held while the source is used, so that Stop waits for a post
  EventSourceHandle handle_ = nullptr;

  zem::StopSignal stop_;
  zem::NativeThread worker_;
};

/// The alarm manager of one feature number.
template <uint16_t kFeature>
class AlarmMgr final : public AlarmManager {
 public:
  static constexpr uint16_t kFeatureId = kFeature;
  AlarmMgr(std::string name, std::vector<AlarmEvent> events, std::function<void()> interrupt)
      : AlarmManager(kFeature, std::move(name), std::move(events), std::move(interrupt)) {}
};

}  // namespace Ctxt
