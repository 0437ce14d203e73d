#include "app/ctxteng/alarm/alarm_registry.h"

#include <map>
#include <mutex>
#include <utility>

#include "framework/log/log.h"

namespace Ctxt::alarms {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

struct Registry {
  std::mutex mutex;  // guards managers
  std::map<uint16_t, std::shared_ptr<IAlarmMgr>> managers;
};

// Never destroyed: clients may post until the end of the process.
Registry& Managers() {
  static auto* const registry = new Registry();
  return *registry;
}

}  // namespace

void Register(uint16_t feature_id, std::shared_ptr<IAlarmMgr> manager) {
  Registry& registry = Managers();
  const std::lock_guard lock(registry.mutex);
  // Swapped, so that the previous manager is destroyed without the lock, by the caller's argument.
  registry.managers[feature_id].swap(manager);
}

std::shared_ptr<IAlarmMgr> Find(uint16_t feature_id) {
  Registry& registry = Managers();
  const std::lock_guard lock(registry.mutex);
  const auto manager = registry.managers.find(feature_id);
  return manager == registry.managers.end() ? nullptr : manager->second;
}

void AddEntity(uint16_t feature_id, const std::string& entity_id, uint16_t event_type) {
  if (const auto manager = Find(feature_id)) manager->AddEntity(entity_id, event_type);
}

void PostAlarm(uint16_t feature_id, const std::string& entity_id, uint16_t event_type,
               const std::string& context, bool raised) {
  ZLOG_INFO("AlarmMgr: %d, %s, %d, %s, %s", feature_id, entity_id.c_str(), event_type, context.c_str(),
            raised ? "Raised" : "Down");
  // The manager logs what the library says.
  if (const auto manager = Find(feature_id)) {
    static_cast<void>(manager->PostAlarm(entity_id, event_type, context, raised));
  }
}

void ResetAllAlarms(uint16_t feature_id) {
  if (const auto manager = Find(feature_id)) return manager->ResetAllAlarms();
  ZLOG_INFO("AlarmMgr: Reset Alarms feature id: %u not found", feature_id);
}

}  // namespace Ctxt::alarms
