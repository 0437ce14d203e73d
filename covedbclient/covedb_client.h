#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "covedbclient/client_state.h"
#include "covedbclient/covedb_client_interface.h"
#include "covedbclient/modify_queue.h"
#include "covedbclient/monitor_tables.h"
#include "covedbclient/server_schema.h"
#include "platform/core/condition.h"
#include "platform/core/retry_policy.h"
#include "platform/rpc/client.h"
#include "proto/covedb/covedb.rpc.h"
#include "proto/daemon/daemon.rpc.h"

namespace zem {
class AsioZemProvider;
class Timer;
}  // namespace zem

namespace zem::covedb {

/// The process's one client of the local store: keeps three stubs alive, brings them back when they are lost,
/// queues writes and renews monitors.  It tries for as long as it lives; there is no stop.
///
/// Ownership: always held by a shared pointer, since calls and timers under way keep only a weak one.  The
/// provider has to outlive it.
///
/// Locks: the monitor mutex comes before the state mutex.  Both are recursive,
/// because callbacks that run under them may call the client.
class CoveDbClient final : public CoveDbClientInterface, public std::enable_shared_from_this<CoveDbClient> {
 public:
  using State = ClientState;

  /// `id` names this client to the store.  A null `state_mutex` makes one of its own; an owner who passes one
  /// guards its own structures together with the client's.  `exit` ends the process when the store refuses a
  /// write for good; the default flushes the standard streams and ends it at once, without destructors,
  /// because other threads are running.
  CoveDbClient(std::string id, std::string endpoint, AsioZemProvider& provider,
               std::shared_ptr<std::recursive_mutex> state_mutex, bool create_default_monitor_session,
               bool monitor_session_creation_enabled, bool schema_check,
               std::function<void(int code)> exit = {});
  ~CoveDbClient() override;

  bool RegisterMonitorCallback(uint32_t module_id, UpdateCallback update, BarrierCallback barrier,
                               uint16_t vdb_id) override;
  void AddChannelStatusCallback(ChannelStatusCallback callback) override;
  bool AddMonitorSession(uint16_t vdb_id) override;
  bool RemoveMonitorSession(uint16_t vdb_id) override;
  bool EnableMonitorSessionCreation() override;
  bool ConfigureMonitor(const std::list<MonitorStatementMsg>& to_add,
                        const std::list<MonitorStatementMsg>& to_remove, uint32_t module_id,
                        uint16_t vdb_id) override;
  bool UpdateMonitor(const std::list<MonitorStatementUpdateMsg>& updates, uint16_t vdb_id) override;
  bool GetServerSchemaVersion(
      std::function<void(const std::string& version, const rpc::Status&)> callback) override;
  bool GetServerSchema(
      std::function<void(const std::string& schema, const std::string& version, const rpc::Status&)> callback)
      override;
  void Modify(std::list<ModifyRequestMsg> requests, std::function<void()> done) override;
  bool Get(const std::list<ObjectRequestMsg>& requests, ObjectsCallback callback, uint16_t vdb_id) override;
  bool Query(const StatementMsg& statement, ObjectsCallback callback, uint16_t vdb_id) override;
  bool CreateVDb(const std::string& name,
                 std::function<void(uint32_t vdb_id, const rpc::Status&)> callback) override;
  bool DeleteVDb(const std::string& name, std::function<void(const rpc::Status&)> callback,
                 uint16_t vdb_id) override;
  bool GetVDbId(const std::string& name,
                std::function<void(const std::list<VDbMsg>&, const rpc::Status&)> callback) override;
  bool Echo(const std::string& text,
            std::function<void(const std::string&, const rpc::Status&)> callback) override;
  void Start() override;

  /// Start without the wait.
  void StartAsync();

  /// How long to wait for the schema calls before an old store is assumed; 300 seconds unless set.
  void SetVersionResponseTimeout(uint32_t seconds);

  /// Drops changes of `type`, and calls `on_failure` for each, while the store is older than `version`.  Only
  /// with schema check; a type that has a constraint keeps it.
  void SetVersionConstraint(ObjectType type, std::string version, std::function<void(ObjectType)> on_failure);

  bool IsPendingModificationReqEmpty() const;

  State state() const;

 private:
  class MonitorResponseObserver;
  using StateLock = std::lock_guard<std::recursive_mutex>;
  // For observers that touch the client's state, in the order of the locks.
  struct ObserverLock {
    explicit ObserverLock(CoveDbClient& client)
        : monitor(client.monitor_mutex_), state(*client.state_mutex_) {}
    std::lock_guard<std::recursive_mutex> monitor;
    StateLock state;
  };

  // State machine; all under the state mutex.
  void ChangeState(State state);
  void OnEnter(State state);
  void OnExit(State state);
  void EnterRequesting(void (CoveDbClient::*request)());
  void EnterConnected();
  void EnterDisconnected();
  void RequestStub();
  void RequestOpsStub();
  void RequestDaemonHealthStub();
  void SetStub(std::optional<orlane::zem::covedb::CoveDb::Stub> stub);
  void SetOpsStub(std::optional<orlane::zem::covedb::CoveDbOps::Stub> stub);
  void SetDaemonHealthStub(std::optional<daemon::DaemonHealth::Stub> stub);
  // Runs `request` again after `delay_ms`.
  void RequestAgain(void (CoveDbClient::*request)(), const char* name, int64_t delay_ms);
  template <class Stub>
  void Create(void (CoveDbClient::*set)(std::optional<Stub>), const char* name);
  void OnRpcStreamDown(rpc::CloseReason reason);
  void NotifyChannelStatus(bool up);
  bool HasAllStubs() const { return covedb_stub_ && ops_stub_ && daemon_health_stub_; }

  void SendModifyRequest();
  void OnModifyStatus(const ModifyQueue::Callbacks& callbacks, const rpc::Status& status);

  void SetupMonitors();
  void SetupMonitor(uint16_t vdb_id, const MonitorTables::SessionId& monitor_id);
  void SendConfigureMonitor(uint16_t vdb_id, orlane::zem::covedb::ConfigureMonitorRequestMsg& request);
  bool IsCurrentStream(uint16_t vdb_id, const MonitorTables::SessionId& monitor_id) const;
  void OnMonitorStatus(uint16_t vdb_id, const MonitorTables::SessionId& monitor_id,
                       const rpc::Status& status);
  void OnMonitorRefused(uint16_t vdb_id, const rpc::Status& status);

  void GetServerSchemaAndVersion();
  void CoveDbServerSchemaResponseHandler(const std::string& schema, const rpc::Status& status);
  void CoveDbServerSchemaVersionResponseHandler(const std::string& version, const rpc::Status& status);
  void GetServerSchemaTimeoutHandler();
  void GetServerSchemaVersionTimeoutHandler();
  std::shared_ptr<Timer> StartResponseTimer(void (CoveDbClient::*handler)());
  void CheckSchemaAndGoOn();
  void SetupMonitorsAndSendModify();

  std::optional<orlane::zem::covedb::CoveDbOps::Stub> ops_stub_;
  rpc::ClientContext context_;
  const std::string endpoint_;
  std::optional<orlane::zem::covedb::CoveDb::Stub> covedb_stub_;
  std::optional<daemon::DaemonHealth::Stub> daemon_health_stub_;
  AsioZemProvider& provider_;
  std::shared_ptr<Timer> retry_timer_;
  RetryPolicy retry_policy_;
  MonitorTables monitors_;
  // A stream that the store refuses again and again, until one is answered.
  struct Refusals {
    int count = 0;
    RetryPolicy delays;
    std::shared_ptr<Timer> timer;
  };
  std::map<uint16_t, Refusals> monitor_refusals_;  // by vdb
  std::vector<ChannelStatusCallback> channel_status_callbacks_;
  ModifyQueue modify_queue_;
  const std::shared_ptr<std::recursive_mutex> state_mutex_;  // guards all but the constants
  std::recursive_mutex monitor_mutex_;  // keeps a stream's answers apart; before the other
  Condition connected_;
  uint64_t connected_count_ = 0;

  const bool create_default_monitor_session_;
  bool monitor_session_creation_enabled_;
  const bool schema_check_;
  ServerSchema server_schema_;
  uint32_t version_response_timeout_s_ = 300;
  std::shared_ptr<Timer> schema_timer_;
  std::shared_ptr<Timer> schema_version_timer_;
  bool schema_call_allowed_ = true;
  bool schema_version_call_allowed_ = true;

  State state_ = State::NONE;
  State next_state_ = State::NONE;
  const std::function<void(int)> exit_;
};

}  // namespace zem::covedb
