#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace Ctxt {

/// The alarms of one feature.
class IAlarmMgr {
 public:
  virtual ~IAlarmMgr() = default;

  virtual uint16_t FeatureId() const = 0;
  virtual bool Start() = 0;
  virtual void Stop() = 0;
  virtual void ResetAllAlarms() = 0;
  virtual void AddEntity(const std::string& entityId, uint16_t eventType) = 0;
  virtual void RemoveEntity(const std::string& entityId, uint16_t eventType) = 0;
  virtual void PostAlarm(const std::string& entityId, uint16_t eventType, const std::string& context,
                         bool raised) = 0;
  virtual void UpdateEventConfig(uint16_t eventType, bool disabled, uint32_t threshold) = 0;
};

/// The process's alarm managers by feature.
///
/// Threads: all functions from any thread.  AddEntity and PostAlarm hold the registry's mutex while the
/// manager works, so a manager must not call them.
namespace AlarmRegistry {

/// Replaces the feature's manager; null removes it.
void Register(uint16_t feature, std::shared_ptr<IAlarmMgr> manager);
/// Null when the feature has none.
std::shared_ptr<IAlarmMgr> Find(uint16_t feature);

// These do nothing for a feature without a manager.
void AddEntity(uint16_t feature, const std::string& entity, uint16_t type);
void PostAlarm(uint16_t feature, const std::string& entity, uint16_t type, const std::string& context,
               bool raised);

}  // namespace AlarmRegistry
}  // namespace Ctxt
