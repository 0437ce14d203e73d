#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace Ctxt {

/// The alarms of one feature of the node.  Entities are uuids as text; kNodeEntity stands for the node
/// itself.
///
/// Threads: all operations from any thread; Start and Stop one after the other.
class IAlarmMgr {
 public:
  virtual ~IAlarmMgr() = default;

  virtual uint16_t feature_id() const = 0;
  virtual void Start() = 0;
  /// No sample is taken and no callback runs when this returns.
  virtual void Stop() = 0;
  /// Clears the node's alarm of every event that is not disabled.
  virtual void ResetAllAlarms() = 0;
  /// Samples the entity for one event; the node's entity with event 0, for all events.
  virtual void AddEntity(const std::string& entity_id, uint16_t event_type) = 0;
  virtual void RemoveEntity(const std::string& entity_id, uint16_t event_type) = 0;
  /// Raises or clears an alarm now.  Returns the library's status: 0 success, 4 no event source.
  virtual int PostAlarm(const std::string& entity_id, uint16_t event_type, const std::string& context,
                        bool raised) = 0;
  virtual void UpdateEventConfig(uint16_t event_type, bool disabled, uint32_t threshold) = 0;
  /// Whether the configuration has switched the event off; false for an unknown one.
  virtual bool IsDisabled(uint16_t) const { return false; }
};

/// The alarm managers of the process by feature.  An unknown feature is ignored, unless an operation says
/// otherwise.
///
/// Threads: all operations from any thread.  No lock is held while a manager is called.
namespace alarms {

/// Null takes the feature's manager out.
void Register(uint16_t feature_id, std::shared_ptr<IAlarmMgr> manager);
std::shared_ptr<IAlarmMgr> Find(uint16_t feature_id);
void AddEntity(uint16_t feature_id, const std::string& entity_id, uint16_t event_type);
void PostAlarm(uint16_t feature_id, const std::string& entity_id, uint16_t event_type,
               const std::string& context, bool raised);
void ResetAllAlarms(uint16_t feature_id);

}  // namespace alarms
}  // namespace Ctxt
