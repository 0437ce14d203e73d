#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "mpaclient/proxy/spread_delay.h"
#include "platform/provider/provider.h"
#include "platform/rpc/close_reason.h"
#include "platform/rpc/connection.h"

namespace orlane::zem::messaging {
class ApplProxyInfoRspMsg;
}

namespace zem {

class Timer;

/// The client of the local proxy process: keeps the two connections to it, knows the manager-side proxies
/// (APHs), the master among them, the transport node's id and the manager's version, and notifies the
/// registered clients of changes.
///
/// It has two providers with one thread each.  The forwarding provider runs the whole manager channel: stubs,
/// host services and their timers.  Stub work starts once both the forwarding
/// connection is up and a list of APHs has arrived; whichever comes second triggers it.
///
/// Threads: all operations from any thread.  Connection callbacks run on the provider of their connection
/// with no lock held; update-stubs callbacks are posted to the forwarding provider.
class TnProxyClientCommon : public std::enable_shared_from_this<TnProxyClientCommon> {
 public:
  using ConnectionUp = std::function<void()>;
  using ConnectionDown = std::function<void(rpc::CloseReason)>;
  using UpdateStubs = std::function<void()>;
  using AphMap = std::map<std::string, bool>;  // APH id to "is master"

  /// Creates the process's instance unless it exists.
  static void Init(const std::string& client_id, const std::string& endpoint,
                   const std::string& stubs_endpoint);
  /// Null before Init.
  static std::shared_ptr<TnProxyClientCommon> getInstance();
  /// Releases the process's instance, which is destroyed with its last holder.
  static void Release();

  TnProxyClientCommon(std::string client_id, std::string endpoint, std::string stubs_endpoint);
  ~TnProxyClientCommon();

  void Start();
  void Stop();

  void SetTnProxyConnectionUp(const std::string& name, ConnectionUp callback);
  void SetTnProxyConnectionDown(const std::string& name, ConnectionDown callback);
  /// A client that registers while the connection is up is notified at once.
  void SetUpdateStubs(const std::string& name, UpdateStubs callback);
  void RemoveClient(const std::string& name);

  std::string getTnUuidStr() const;
  AphMap aphs() const;
  bool connected_for_forwarding() const;
  /// Returns false while the manager's version has not been received.
  bool GetMpVersion(uint32_t* major, uint32_t* minor) const;

  AsioZemProvider& forwarding_provider() { return forwarding_provider_; }

 private:
  class ApplProxyInfoObserver;
  struct InfoStub;

  void ConnectAndSubscribeForAphInfo();
  void OnConnectionUp(const rpc::ConnectionInfo& info);
  void OnConnectionDown(rpc::CloseReason reason);
  void GetStub();
  void StubCreateDone(std::unique_ptr<InfoStub> stub);
  void RetryStubLater();
  void HandleProxyInfo(const orlane::zem::messaging::ApplProxyInfoRspMsg& message);
  void SubscriptionEnded(uint64_t subscription);

  void ConnectForForwarding();
  void OnForwardingConnectionUp(const rpc::ConnectionInfo& info);
  void OnForwardingConnectionDown(rpc::CloseReason reason);
  void NotifyClients(bool update_stubs, bool connect_tn_proxy);

  const std::string client_id_;
  const std::string endpoint_;
  const std::string stubs_endpoint_;

  mutable std::shared_mutex clients_mutex_;  // guards the three tables
  std::unordered_map<std::string, ConnectionDown> connection_down_;
  std::unordered_map<std::string, ConnectionUp> connection_up_;
  std::unordered_map<std::string, UpdateStubs> update_stubs_;

  mutable std::shared_mutex state_mutex_;  // guards what follows; taken before clients_mutex_
  bool stub_creation_enabled_ = false;
  bool stopped_ = true;
  bool started_ = false;
  bool subscribed_ = false;
  bool info_connected_ = false;
  uint64_t subscription_ = 0;  // of the last stub
  bool connected_for_forwarding_ = false;
  std::unique_ptr<InfoStub> stub_;
  std::shared_ptr<Timer> retry_timer_;
  RetryCountdown retry_countdown_;

  mutable std::shared_mutex map_mutex_;  // guards the last information of the proxy
  AphMap aph_uuid_master_map_;
  std::string tn_uuid_;
  std::optional<std::pair<uint32_t, uint32_t>> product_version_;

  AsioZemProvider info_provider_;
  rpc::ConnectionManager info_connections_;
  AsioZemProvider forwarding_provider_;
  rpc::ConnectionManager forwarding_connections_;
};

}  // namespace zem
