#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>

#include "app/alarmsprovider/config/config_sync_manager.h"
#include "app/alarmsprovider/config/polling_config_cache.h"

namespace orlane::zem::covedb {
class MonitorUpdateMsg;
class TypedObjectMsg;
}  // namespace orlane::zem::covedb

namespace zem::covedb {
class CoveDbClientInterface;
}

namespace zem::rpc {
class Status;
}

namespace zem::Tarvik {

/// Watches the local store for what concerns alarms and status.
///
/// Threads: Start and Stop one after the other; the store's callbacks from the store client's threads.
class CovedbEventHandler : public std::enable_shared_from_this<CovedbEventHandler> {
 public:
  /// Called, by the store client's threads with its locks held, when the polling configuration has changed.
  using ConfigChanged = std::function<void(const PollingTable& table, bool collection_enabled)>;

  struct Settings {
    std::shared_ptr<covedb::CoveDbClientInterface> store;
    PollingConfigCache::ClientType client_type = PollingConfigCache::kOther;
    ConfigSyncManager::Paths paths;
  };

  CovedbEventHandler(Settings settings, ConfigChanged config_changed);

  void Start();
  void Stop();

  PollingConfigCache& polling_config() { return polling_config_; }

 private:
  using Update = orlane::zem::covedb::MonitorUpdateMsg;

  void OnChannelStatus(bool up);
  void OnUpdate(const Update& update);
  void OnBarrier();
  void OnEventConfig(const Update& update);
  void OnGlobalConfig(const Update& update);
  void OnDataCollectionConfig(const Update& update);
  void OnGlobalCollection(const Update& update);
  void OnUserDefinedCollection(const Update& update);
  void PollingChanged();
  void Push();
  void GetCentralConfig();
  void TakeCentralConfig(const std::list<orlane::zem::covedb::TypedObjectMsg>& objects,
                         const rpc::Status& status);

  const Settings settings_;
  const ConfigChanged config_changed_;
  const std::shared_ptr<ConfigSyncManager> config_sync_;
  PollingConfigCache polling_config_;

  std::mutex mutex_;  // guards the flags
  bool event_config_changed_ = false;
  bool global_config_changed_ = false;
  bool global_config_asked_ = false;  // an answer is still to come
  bool replaying_ = false;            // from a connection to its first barrier
  bool push_due_ = false;             // at the end of the replay
};

}  // namespace zem::Tarvik
