#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/monitoring/event_source.h"

namespace Ctxt {

/// The alarm of guest introspection: the channel to a partner's service VM is down.  An entity is the uuid of
/// a service instance, as text.
///
/// Threads: all operations from any thread; Start and Shutdown one after the other.  The library's callback
/// may come at any time between them.
/// Locks: none of the object's own is held while the library is called.
class OuviAlarm {
 public:
  /// The only event.
  static constexpr uint16_t kPartnerChannelDown = 3;

  /// The process's alarm, never destroyed.
  static OuviAlarm& GetInstance();

  OuviAlarm() = default;
  ~OuviAlarm();
  OuviAlarm(const OuviAlarm&) = delete;
  OuviAlarm& operator=(const OuviAlarm&) = delete;

  /// Makes and starts the event source.  Without one, which is logged, nothing can be raised.
  void Start();
  /// Withdraws every active alarm and ends the event source.  Calling it twice has no effect.
  void Shutdown();

  /// Return false, with a line that says why, when the library did not take the change.
  bool Raise(uint16_t event_id, const std::string& entity);
  bool Reset(uint16_t event_id, const std::string& entity);
  /// Withdraws the alarm of an entity that is gone.
  void ResetAll(uint16_t event_id, const std::string& entity);

 private:
  struct EventConfig {
    bool is_disabled = false;
    uint32_t threshold = 0;
  };

  void OnConfig(const std::vector<EventSourceConfig>& configs);
  bool Disabled(uint16_t event_id);
  bool Post(uint16_t event_id, const std::string& entity, bool raised);
  void Withdraw(uint16_t event_id, const std::set<std::string>& entities);

  std::mutex handle_mutex_;  // held while the source is used, so that Shutdown waits for a post
  EventSourceHandle handle_ = nullptr;
  std::mutex alarms_mutex_;
  std::map<uint16_t, std::set<std::string>> active_alarms_;
  std::mutex config_mutex_;
  std::map<uint16_t, EventConfig> event_cfg_map_;
};

}  // namespace Ctxt
