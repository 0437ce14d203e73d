#include "app/ctxteng/alarm/ouvi_alarm.h"

#include <exception>
#include <utility>

#include "app/ctxteng/alarm/entity_id.h"
#include "app/ctxteng/alarm/json_text.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr const char* kName = "OuviZemTarvik";
constexpr uint16_t kFeature = 13;

const char* NameOf(uint16_t event_id) {
  if (event_id == OuviAlarm::kPartnerChannelDown) return "ENDPOINT_PROTECTION_PARTNER_CHANNEL_DOWN_EVENT";
  ZLOG_CTX_ERROR(801, "OuviAlarm: Error: Unknown eventId %d", event_id);
  return "*** Unknown Event Id";
}

}  // namespace

OuviAlarm& OuviAlarm::GetInstance() {
  static auto* const instance = new OuviAlarm();
  return *instance;
}

OuviAlarm::~OuviAlarm() { Shutdown(); }

void OuviAlarm::Start() {
  EventSourceHandle handle = nullptr;
  if (EventSource_CreateEx(kName, kFeature, &handle) != kEventSourceOk) {
    ZLOG_CTX_ERROR(804, "OuviAlarm: Failed to create alarm handle for ENDPOINT_PROTECTION feature");
    return;
  }
  ZLOG_INFO("OuviAlarm: Successfully created alarm handle for ENDPOINT_PROTECTION feature");
  const auto on_config = [this](const std::vector<EventSourceConfig>& configs) { OnConfig(configs); };
  if (EventSource_SetConfigCallback(handle, on_config) != kEventSourceOk) {
    ZLOG_CTX_ERROR(806,
                   "OuviAlarm: Failed to register callback to receive event configuration changes for "
                   "ENDPOINT_PROTECTION alarms. Alarm service cannot be started for this feature");
    return EventSource_Destroy(handle);
  }
  ZLOG_INFO(
      "OuviAlarm: Successfully registered callback to receive event configuration changes for "
      "ENDPOINT_PROTECTION alarms");
  if (EventSource_Start(handle) != kEventSourceOk) {
    ZLOG_CTX_ERROR(805, "OuviAlarm: Failed to start alarm service");
    return EventSource_Destroy(handle);
  }
  ZLOG_INFO("OuviAlarm: Successfully started alarm service");
  const std::lock_guard lock(handle_mutex_);
  handle_ = handle;
}

void OuviAlarm::Shutdown() {
  std::map<uint16_t, std::set<std::string>> active;
  {
    const std::lock_guard lock(alarms_mutex_);
    active.swap(active_alarms_);
  }
  for (const auto& [event_id, entities] : active) Withdraw(event_id, entities);
  EventSourceHandle handle = nullptr;
  {
    const std::lock_guard lock(handle_mutex_);
    std::swap(handle, handle_);
  }
  EventSource_Destroy(handle);
}

bool OuviAlarm::Disabled(uint16_t event_id) {
  const std::lock_guard lock(config_mutex_);
  const auto config = event_cfg_map_.find(event_id);
  if (config != event_cfg_map_.end()) return config->second.is_disabled;
  ZLOG_CTX_ERROR(802, "OuviAlarm: No entry found in eventCfgMap for event: %s", NameOf(event_id));
  return true;
}

bool OuviAlarm::Post(uint16_t event_id, const std::string& entity, bool raised) {
  const auto id = ParseEntityId(entity);
  if (!id || Disabled(event_id)) return false;
  const std::string context = JsonText({{"entity_id", entity}});
  const std::lock_guard lock(handle_mutex_);
  return handle_ != nullptr && EventSource_SetEventInstanceSample(handle_, event_id, id->high, id->low,
                                                                  raised, context.c_str()) == kEventSourceOk;
}

bool OuviAlarm::Raise(uint16_t event_id, const std::string& entity) {
  if (!Post(event_id, entity, true)) {
    ZLOG_ERROR("ERR_CTXT_ALARM_SET_ALARM_INST", "OuviAlarm: Cannot set alarm instance for event: %s",
               NameOf(event_id));
    return false;
  }
  ZLOG_INFO("OuviAlarm: Alarm instance successfully set for event: %s", NameOf(event_id));
  const std::lock_guard lock(alarms_mutex_);
  active_alarms_[event_id].insert(entity);
  return true;
}

bool OuviAlarm::Reset(uint16_t event_id, const std::string& entity) {
  const bool reset = Post(event_id, entity, false);
  if (reset) {
    ZLOG_INFO("OuviAlarm: Alarm instance successfully reset for event: %s", NameOf(event_id));
  } else {
    ZLOG_CTX_ERROR(808, "OuviAlarm: Cannot reset alarm instance for event: %s", NameOf(event_id));
  }
  // An alarm that the library still shows stays in the set, so that Shutdown withdraws it.
  if (!reset) return false;
  const std::lock_guard lock(alarms_mutex_);
  const auto active = active_alarms_.find(event_id);
  if (active == active_alarms_.end()) return true;
  active->second.erase(entity);
  if (active->second.empty()) active_alarms_.erase(active);
  return true;
}

void OuviAlarm::ResetAll(uint16_t event_id, const std::string& entity) {
  {
    const std::lock_guard lock(alarms_mutex_);
    const auto active = active_alarms_.find(event_id);
    if (active == active_alarms_.end()) {
      ZLOG_INFO("OuviAlarm:: No active alarms found for event: %s", NameOf(event_id));
      return;
    }
    if (active->second.erase(entity) == 0) {
      ZLOG_INFO(
          "OuviAlarm:: Resetting no alarm as no entry is found for event: %s corresponding to entity: %s",
          NameOf(event_id), entity.c_str());
      return;
    }
    if (active->second.empty()) active_alarms_.erase(active);
  }
  Withdraw(event_id, {entity});
}

void OuviAlarm::Withdraw(uint16_t event_id, const std::set<std::string>& entities) {
  std::vector<EventSourceEntity> ids;
  for (const std::string& entity : entities) {
    if (const auto id = ParseEntityId(entity)) ids.push_back(*id);
  }
  ZLOG_INFO("OuviAlarm: Calling updateDeletedEntities for event: %s with deleteEntity array size %d",
            NameOf(event_id), static_cast<int>(ids.size()));
  const std::lock_guard lock(handle_mutex_);
  if (handle_ == nullptr) return;
  if (const int status = EventSource_UpdateDeletedEntities(handle_, event_id, ids.data(), ids.size());
      status != kEventSourceOk) {
    ZLOG_WARN("OuviAlarm: the alarm library did not withdraw %zu entities of event %s, status: %d",
              ids.size(), NameOf(event_id), status);
  }
}

void OuviAlarm::OnConfig(const std::vector<EventSourceConfig>& configs) {
  try {
    for (const EventSourceConfig& config : configs) {
      ZLOG_INFO("OuviAlarm: Processing event update [%d] for ENDPOINT_PROTECTION alarm",
                config.event_type_id);
      const std::lock_guard lock(config_mutex_);
      event_cfg_map_[config.event_type_id] = {config.is_disabled, config.threshold};
      ZLOG_INFO(
          "OuviAlarm: Adding config values for event: %s with isDisabled : %s  and thresholdValue : %d in "
          "eventCfgMap",
          NameOf(config.event_type_id), config.is_disabled ? "true" : "false",
          static_cast<int>(config.threshold));
    }
  } catch (const std::exception&) {
    ZLOG_CTX_ERROR(803, "OuviAlarm: Failed to update event configs with updates from alarm library");
  }
}

}  // namespace Ctxt
