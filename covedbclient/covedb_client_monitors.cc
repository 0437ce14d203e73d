// Monitor sessions against the store: one long stream per virtual database.

#include <utility>

#include "covedbclient/client_log.h"
#include "covedbclient/covedb_client.h"
#include "covedbclient/response_observer.h"
#include "platform/core/uuid.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/provider/weak_call.h"

namespace zem::covedb {
namespace {

namespace proto = orlane::zem::covedb;
using proto::MonitorResponseMsg;
using rpc::StatusCode;

// A monitor id that is taken is cured by another one at once.  What is refused after that, a statement that
// the store cannot serve, stays refused until the store changes.
constexpr int kRefusalsAtOnce = 2;
constexpr int64_t kFirstRefusalDelayMs = 1000;
constexpr int64_t kLastRefusalDelayMs = 60000;

}  // namespace

// Lives as long as its stream; deletes itself with the stream's status.
class CoveDbClient::MonitorResponseObserver final : public rpc::CallObserver<MonitorResponseMsg> {
 public:
  MonitorResponseObserver(std::weak_ptr<CoveDbClient> client, uint16_t vdb_id,
                          const MonitorTables::SessionId& monitor_id)
      : client_(std::move(client)), vdb_id_(vdb_id), monitor_id_(monitor_id) {}

  void Next(const MonitorResponseMsg& response) override {
    const std::shared_ptr<CoveDbClient> client = client_.lock();
    if (!client) {
      ZLOG_DEBUG("MonitorResponseObserver: CoveDbClient is already destroyed");
      return;
    }
    const ObserverLock lock(*client);
    ZLOG_DEBUG("Received a monitor response: %s", response.ShortDebugString().c_str());
    if (!client->IsCurrentStream(vdb_id_, monitor_id_)) return;
    client->monitor_refusals_.erase(vdb_id_);
    for (const MonitorUpdateMsg& update : response.update()) client->monitors_.NotifyModules(update, vdb_id_);
    if (response.mark().barrier()) client->monitors_.NotifyBarrier(vdb_id_);
  }

  void CallStatus(const rpc::Status& status) override {
    const std::unique_ptr<MonitorResponseObserver> self(this);
    if (const std::shared_ptr<CoveDbClient> client = client_.lock()) {
      client->OnMonitorStatus(vdb_id_, monitor_id_, status);
    } else {
      ZLOG_DEBUG("MonitorResponseObserver: CoveDbClient is already destroyed");
    }
  }

 private:
  const std::weak_ptr<CoveDbClient> client_;
  const uint16_t vdb_id_;
  const MonitorTables::SessionId monitor_id_;
};

bool CoveDbClient::RegisterMonitorCallback(uint32_t module_id, UpdateCallback update, BarrierCallback barrier,
                                           uint16_t vdb_id) {
  const StateLock lock(*state_mutex_);
  return monitors_.Register(module_id, std::move(update), std::move(barrier), vdb_id);
}

bool CoveDbClient::AddMonitorSession(uint16_t vdb_id) {
  const StateLock lock(*state_mutex_);
  if (!monitors_.AddSession(vdb_id)) return false;
  if (covedb_stub_) SetupMonitor(vdb_id, monitors_.sessions().at(vdb_id));
  return true;
}

bool CoveDbClient::RemoveMonitorSession(uint16_t vdb_id) {
  const StateLock lock(*state_mutex_);
  return monitors_.RemoveSession(vdb_id);
}

bool CoveDbClient::EnableMonitorSessionCreation() {
  const StateLock lock(*state_mutex_);
  if (HasAllStubs()) {
    monitor_session_creation_enabled_ = true;
    SetupMonitors();
  }
  return monitor_session_creation_enabled_;
}

bool CoveDbClient::ConfigureMonitor(const std::list<MonitorStatementMsg>& to_add,
                                    const std::list<MonitorStatementMsg>& to_remove, uint32_t module_id,
                                    uint16_t vdb_id) {
  const StateLock lock(*state_mutex_);
  proto::ConfigureMonitorRequestMsg request;
  if (!monitors_.Configure(to_add, to_remove, module_id, vdb_id, request)) return false;
  const bool changed = request.statement_to_add_size() > 0 || request.statement_to_remove_size() > 0;
  if (changed && monitor_session_creation_enabled_) SendConfigureMonitor(vdb_id, request);
  return true;
}

bool CoveDbClient::UpdateMonitor(const std::list<MonitorStatementUpdateMsg>& updates, uint16_t vdb_id) {
  const StateLock lock(*state_mutex_);
  proto::ConfigureMonitorRequestMsg request;
  if (!monitors_.Update(updates, vdb_id, request)) return false;
  SendConfigureMonitor(vdb_id, request);
  return true;
}

// Without a stream to change, the tables alone remember; the next stream begins with all of them.
void CoveDbClient::SendConfigureMonitor(uint16_t vdb_id, proto::ConfigureMonitorRequestMsg& request) {
  const auto session = monitors_.sessions().find(vdb_id);
  if (!HasAllStubs() || session == monitors_.sessions().end()) return;
  request.set_monitor_request_id(UuidText(session->second));
  request.set_vdb_id(vdb_id);
  struct Nothing {};
  covedb_stub_->ConfigureMonitor(context_, request,
                                 new ResponseObserver<proto::ConfigureMonitorResponseMsg, Nothing>(
                                     "configureMonitor", nullptr,
                                     [](const proto::ConfigureMonitorResponseMsg& response, Nothing&) {
                                       ZLOG_DEBUG("Object types and ids currently monitored by CoveDB: %s",
                                                  response.ShortDebugString().c_str());
                                     },
                                     nullptr));
}

void CoveDbClient::SetupMonitors() {
  if (monitors_.sessions().empty() && create_default_monitor_session_) monitors_.RenewSession(kDefaultVDb);
  // A session keeps its id over reconnects; the store then takes the new stream for the old one's successor.
  for (const auto& [vdb_id, monitor_id] : monitors_.sessions()) SetupMonitor(vdb_id, monitor_id);
}

void CoveDbClient::SetupMonitor(uint16_t vdb_id, const MonitorTables::SessionId& monitor_id) {
  if (!covedb_stub_) return;
  if (const auto refused = monitor_refusals_.find(vdb_id);
      refused != monitor_refusals_.end() && refused->second.timer) {
    refused->second.timer->Cancel();
    refused->second.timer.reset();
  }
  proto::MonitorRequestMsg request;
  request.set_monitor_id(UuidText(monitor_id));
  request.set_vdb_id(vdb_id);
  monitors_.AddStatements(
      vdb_id,
      [this](ObjectType type) { return !schema_check_ || server_schema_.IsObjectInServerSchema(type); },
      request);
  covedb_stub_->Monitor(context_, request, new MonitorResponseObserver(weak_from_this(), vdb_id, monitor_id));
}

// A stream lives on at the store when its session is removed; if the session is made anew, what the old
// stream brings is not the new one's.
bool CoveDbClient::IsCurrentStream(uint16_t vdb_id, const MonitorTables::SessionId& monitor_id) const {
  const auto session = monitors_.sessions().find(vdb_id);
  return session != monitors_.sessions().end() && session->second == monitor_id;
}

void CoveDbClient::OnMonitorStatus(uint16_t vdb_id, const MonitorTables::SessionId& monitor_id,
                                   const rpc::Status& status) {
  const ObserverLock lock(*this);
  if (!IsCurrentStream(vdb_id, monitor_id)) return;
  switch (static_cast<StatusCode>(status.code())) {
    case StatusCode::kInvalidArgument:  // the id is somebody else's, or a statement cannot be served
      OnMonitorRefused(vdb_id, status);
      return;
    case StatusCode::kVdbGone:
      RemoveMonitorSession(vdb_id);
      return;
    case StatusCode::kResyncRequired:  // updates were lost: everybody rebuilds
      NotifyChannelStatus(false);
      NotifyChannelStatus(true);
      if (monitors_.HasSession(vdb_id)) SetupMonitor(vdb_id, monitors_.RenewSession(vdb_id));
      return;
    default:
      return;  // the stream-down hook of the stub handles a lost connection
  }
}

void CoveDbClient::OnMonitorRefused(uint16_t vdb_id, const rpc::Status& status) {
  Refusals& refused =
      monitor_refusals_
          .try_emplace(vdb_id,
                       Refusals{0, RetryPolicy(kFirstRefusalDelayMs, kLastRefusalDelayMs, 2, -1), nullptr})
          .first->second;
  if (++refused.count <= kRefusalsAtOnce) return SetupMonitor(vdb_id, monitors_.RenewSession(vdb_id));
  const int64_t delay_ms = refused.delays.NextDelay();
  ZLOG_WARN("CoveDbClient: the store refuses the monitor of vdb_id %u (%s), trying again in %li ms...",
            static_cast<unsigned>(vdb_id), status.ToString().c_str(), static_cast<long>(delay_ms));
  if (refused.timer) refused.timer->Cancel();
  refused.timer =
      provider_.timers().Schedule(std::chrono::milliseconds(delay_ms),
                                  WeakCall(
                                      weak_from_this(),
                                      [vdb_id](CoveDbClient& client) {
                                        const StateLock lock(*client.state_mutex_);
                                        const auto entry = client.monitor_refusals_.find(vdb_id);
                                        // None: the stream was opened another way while this was on its way
                                        // here.
                                        if (entry == client.monitor_refusals_.end() || !entry->second.timer)
                                          return;
                                        entry->second.timer.reset();
                                        if (client.monitors_.HasSession(vdb_id)) {
                                          client.SetupMonitor(vdb_id, client.monitors_.RenewSession(vdb_id));
                                        }
                                      },
                                      [] { ZLOG_DEBUG("CoveDbClient is already destroyed"); }));
}

}  // namespace zem::covedb
