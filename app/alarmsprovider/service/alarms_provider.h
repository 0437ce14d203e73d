#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "app/alarmsprovider/collector/collector_messages.h"
#include "app/alarmsprovider/collector/node_id_cache.h"
#include "app/alarmsprovider/config/covedb_event_handler.h"
#include "app/alarmsprovider/link/provider_host.h"
#include "framework/cli/cli_command.h"
#include "framework/status/part_state.h"
#include "mpaclient/vertical/vertical_client.h"

namespace orlane::zem::monitoring {
class CollectorHostMsg;
class MonitoringSyncRequestMsg;
}  // namespace orlane::zem::monitoring

namespace zem::Tarvik {

class ClientLibraryCommunicator;
class CollectorReset;
class QueueManager;
class SourceSync;
class StatusQueueManager;

/// Reports alarm events and status of this node to the manager's collector, over the vertical
/// "AlarmsProvider".
///
/// Threads: Start and Stop one after the other, not on a provider's thread; the rest from any thread.
class AlarmsProvider final : public std::enable_shared_from_this<AlarmsProvider>,
                             public ProviderHost,
                             public CollectorSender {
 public:
  /// The files of the node that the provider reads and writes.
  struct Files {
    NodeIdFiles ids;
    ConfigSyncManager::Paths config;
  };

  /// `store` is null on a node without a local store.
  AlarmsProvider(AsioZemProvider& provider, std::shared_ptr<covedb::CoveDbClientInterface> store,
                 Files files);
  ~AlarmsProvider() override;

  /// Returns false, after an error line, when alarm clients cannot be served.
  [[nodiscard]] bool Start();
  void Stop();

  /// The state of the conversation with the collector.
  void Describe(std::vector<PartState>* parts) const;
  /// "get/alarms".
  std::vector<CliCommand> Commands();

  [[nodiscard]] bool SendToCollector(const orlane::zem::monitoring::CollectorMpMsg& message,
                                     const std::string& correlation_id, int32_t bus_type) override;
  void AddSourceId(const std::string& id) override;
  /// Passes the polling configuration on to the status source.
  void OnConfigChanged(const PollingTable& table, bool collection_enabled);
  PollingTable GetPollingConfig() override;
  bool IsCollectionEnabled() override;
  void HandleLeadershipChange(const orlane::zem::monitoring::LeadershipChangedRequestMsg& request) override;

 private:
  bool Receive(const VerticalRecord& record);
  void HandleCollectorMsg(const std::string& correlation_id,
                          const orlane::zem::monitoring::CollectorHostMsg& message);
  void HandleFullSync(const std::string& correlation_id);
  void HandleSync(const std::string& correlation_id,
                  const orlane::zem::monitoring::MonitoringSyncRequestMsg& request);
  void HandleStatusFullSync(const std::string& correlation_id);
  void OnResetDone();
  void RestartEventQueue();

  NodeIdCache node_ids_;
  const bool watches_store_;
  VerticalClient vertical_;
  const std::shared_ptr<QueueManager> event_queue_;
  const std::shared_ptr<StatusQueueManager> status_queue_;
  const std::shared_ptr<CollectorReset> reset_;
  const std::shared_ptr<SourceSync> source_sync_;
  const std::shared_ptr<CovedbEventHandler> covedb_event_handler_;
  const std::shared_ptr<ClientLibraryCommunicator> communicator_;
  bool started_ = false;
};

}  // namespace zem::Tarvik
