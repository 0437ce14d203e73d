#include "app/ctxteng/alarms/alarm_registry.h"

#include <map>
#include <mutex>
#include <utility>

#include "framework/log/log.h"

namespace Ctxt::AlarmRegistry {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

struct Registry {
  std::mutex mutex;  // guards managers
  std::map<uint16_t, std::shared_ptr<IAlarmMgr>> managers;
};

Registry& Instance() {
  static Registry* const registry = new Registry;
  return *registry;
}

}  // namespace

void Register(uint16_t feature, std::shared_ptr<IAlarmMgr> manager) {
  std::shared_ptr<IAlarmMgr> replaced;  // ends after the mutex is released
  Registry& registry = Instance();
  const std::lock_guard lock(registry.mutex);
  if (manager == nullptr) {
    const auto found = registry.managers.find(feature);
    if (found == registry.managers.end()) return;
    replaced = std::move(found->second);
    registry.managers.erase(found);
  } else {
    replaced = std::exchange(registry.managers[feature], std::move(manager));
  }
}

std::shared_ptr<IAlarmMgr> Find(uint16_t feature) {
  Registry& registry = Instance();
  const std::lock_guard lock(registry.mutex);
  const auto found = registry.managers.find(feature);
  return found == registry.managers.end() ? nullptr : found->second;
}

void AddEntity(uint16_t feature, const std::string& entity, uint16_t type) {
  Registry& registry = Instance();
  const std::lock_guard lock(registry.mutex);
  const auto found = registry.managers.find(feature);
  if (found != registry.managers.end()) found->second->AddEntity(entity, type);
}

void PostAlarm(uint16_t feature, const std::string& entity, uint16_t type, const std::string& context,
               bool raised) {
  ZLOG_INFO("AlarmMgr: %d, %s, %d, %s, %s", feature, entity.c_str(), type, context.c_str(),
            raised ? "Raised" : "Down");
  Registry& registry = Instance();
  const std::lock_guard lock(registry.mutex);
  const auto found = registry.managers.find(feature);
  if (found != registry.managers.end()) found->second->PostAlarm(entity, type, context, raised);
}

}  // namespace Ctxt::AlarmRegistry
