#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "app/alarmsprovider/config/central_config.h"
#include "app/alarmsprovider/config/event_customizations.h"

namespace zem {
class Timer;
}

namespace zem::Tarvik {

/// Carries the store's configuration to this node: the customizations into their file, the central
/// configuration into the node's script.
///
/// Threads: Start and Stop one after the other, not on its own provider; the rest from any thread.
class ConfigSyncManager : public std::enable_shared_from_this<ConfigSyncManager> {
 public:
  struct Paths {
    std::string customizations = "/var/run/orlane/zem-monitoring/event_customizations.json";
    CentralConfig::Paths central_config;
  };

  explicit ConfigSyncManager(Paths paths);
  ~ConfigSyncManager();

  void Start();
  void Stop();

  void Update(const orlane::zem::covedb::EventConfigMsg& event);
  void Delete(const std::string& name);
  /// If no `Write` follows, the file is written within a minute: the store may have nothing to say any more.
  void Clear();
  /// The store has gone, maybe before it said anything: the file stays as it is until the next `Clear`.
  void StoreGone();
  /// Writes the file of customizations.  Returns false, after a log line, when it is as it was.
  bool Write();

  /// An empty text is kept, but not given to the script.
  void SetCentralConfig(const std::string& text);

 private:
  void Tick();

  const std::unique_ptr<AsioZemProvider> provider_;
  const std::shared_ptr<CentralConfig> central_config_;
  std::shared_ptr<Timer> timer_;
  bool started_ = false;

  std::mutex mutex_;  // guards what follows, and is held while the file is written
  EventCustomizations customizations_;
  bool cleared_ = false;    // and not written since
  int ticks_to_write_ = 0;  // 0: no tick has to write the file
};

}  // namespace zem::Tarvik
