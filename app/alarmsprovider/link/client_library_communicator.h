#pragma once

#include <boost/shared_ptr.hpp>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "app/alarmsprovider/link/client_table.h"
#include "app/alarmsprovider/link/cpp_python_client.h"
#include "app/alarmsprovider/link/java_client.h"

namespace zem {
class AsioZemProvider;
class Timer;
namespace rpc {
class Server;
class Status;
struct ConnectionInfo;
}  // namespace rpc
}  // namespace zem

namespace zem::Tarvik {

class FullSyncCtx;
class ProviderHost;
class ProviderService;
class QueueManager;
class StatusQueueManager;
class StatusSource;
class SyncCtx;

/// The RPC server for alarm clients and the status source of this node, and the table of connected clients.
///
/// Threads: Start and Stop one after the other, not on its own provider; the rest from any thread.
/// Ownership: the queues and the host have to live until Stop has returned.
class ClientLibraryCommunicator : public std::enable_shared_from_this<ClientLibraryCommunicator> {
 public:
  ClientLibraryCommunicator(QueueManager& events, StatusQueueManager& statuses, ProviderHost& host);
  ~ClientLibraryCommunicator();

  /// Returns false, after an error line, when the port is taken.
  [[nodiscard]] bool Start();
  void Stop();

  void Sync(const std::shared_ptr<SyncCtx>& context);
  /// Asks all clients for everything, and completes the context without waiting for them.
  void FullSyncAll(const std::shared_ptr<FullSyncCtx>& context);
  /// Asks one client; `id` is its key, or its source id `withPrefix`.
  void FullSync(const std::string& id, bool withPrefix);
  void CollectSourceIds(std::set<std::string>* ids) const;
  void TriggerStatusFullSync();
  void SendConfig(const std::map<std::string, uint32_t>& table, bool enabled);

  // What the service asks for its subscribers.
  boost::shared_ptr<CppPythonClient> MakeSubscriber(const std::string& source_id, CppPythonClient::Call call);
  /// Enters the client and welcomes it.  Returns false, after a log line, when the source id is taken.
  [[nodiscard]] bool AddClient(const boost::shared_ptr<CppPythonClient>& client,
                               const std::string& source_id);
  /// Does nothing when the source id belongs to another client by now.
  void RemoveClient(const std::string& source_id, const boost::shared_ptr<CppPythonClient>& client);
  void HandleResponse(const CppPythonClient::Response& response);

 private:
  void Serve();
  void OnConnectionUp(const rpc::ConnectionInfo& info);
  void OnConnectionDown(const rpc::ConnectionInfo& info);
  void RequestStub(const std::string& peer_id);
  void OnStub(const std::string& peer_id, std::optional<JavaClient::Stub> stub);
  void OnStreamDown(const std::string& peer_id, const boost::weak_ptr<JavaClient>& client);
  void FullSyncOne(const std::string& key, Client& client);
  void RequestStatusFullSync();

  ProviderHost& host_;
  const std::unique_ptr<AsioZemProvider> provider_;
  const std::shared_ptr<StatusSource> status_source_;
  const boost::shared_ptr<ProviderService> service_;
  std::unique_ptr<rpc::Server> server_;
  bool started_ = false;

  ClientTable clients_;

  std::mutex peers_mutex_;            // guards the two below
  std::map<std::string, int> peers_;  // announced ids of clients, with the number of their connections
  std::map<std::string, bool> stubs_coming_;  // ids whose stub is being made; true: asked for again since

  std::mutex status_timer_mutex_;  // guards the timer
  std::shared_ptr<Timer> status_timer_;
};

}  // namespace zem::Tarvik
