// The store's calls of one answer, and the schema check that two of them serve.

#include <chrono>
#include <utility>

#include "covedbclient/client_log.h"
#include "covedbclient/covedb_client.h"
#include "covedbclient/response_observer.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/provider/weak_call.h"

namespace zem::covedb {
namespace {

namespace proto = orlane::zem::covedb;
using CallState = ServerSchema::CallState;

void StopTimer(std::shared_ptr<Timer>& timer) {
  if (timer) timer->Cancel();
  timer.reset();
}

template <class Response>
void GatherObjects(const Response& response, std::list<TypedObjectMsg>& objects) {
  objects.insert(objects.end(), response.object().begin(), response.object().end());
}

template <class Response>
auto* ObjectsObserver(const char* call, const char* received, ObjectsCallback callback) {
  using Objects = std::list<TypedObjectMsg>;
  return new ResponseObserver<Response, Objects>(call, received, GatherObjects<Response>,
                                                 std::move(callback));
}

}  // namespace

bool CoveDbClient::Get(const std::list<ObjectRequestMsg>& requests, ObjectsCallback callback,
                       uint16_t vdb_id) {
  const StateLock lock(*state_mutex_);
  if (!covedb_stub_) return false;
  proto::GetRequestMsg request;
  for (const ObjectRequestMsg& object : requests) *request.add_object_request() = object;
  if (vdb_id != 0) request.set_vdb_id(vdb_id);
  covedb_stub_->Get(
      context_, request,
      ObjectsObserver<proto::GetResponseMsg>("get", "Received Get response", std::move(callback)));
  return true;
}

bool CoveDbClient::Query(const StatementMsg& statement, ObjectsCallback callback, uint16_t vdb_id) {
  const StateLock lock(*state_mutex_);
  if (!covedb_stub_) return false;
  proto::QueryRequestMsg request;
  *request.mutable_statement() = statement;
  if (vdb_id != 0) request.set_vdb_id(vdb_id);
  covedb_stub_->Query(
      context_, request,
      ObjectsObserver<proto::QueryResponseMsg>("query", "Received Query response", std::move(callback)));
  return true;
}

bool CoveDbClient::CreateVDb(const std::string& name,
                             std::function<void(uint32_t, const rpc::Status&)> callback) {
  const StateLock lock(*state_mutex_);
  if (!covedb_stub_) return false;
  proto::CreateVDbRequestMsg request;
  request.set_name(name);
  covedb_stub_->CreateVDb(
      context_, request,
      new ResponseObserver<proto::CreateVDbResponseMsg, uint32_t>(
          "createVDb", "Received CreateVDb response",
          [](const proto::CreateVDbResponseMsg& response, uint32_t& id) { id = response.vdb_id(); },
          std::move(callback)));
  return true;
}

bool CoveDbClient::DeleteVDb(const std::string& name, std::function<void(const rpc::Status&)> callback,
                             uint16_t vdb_id) {
  const StateLock lock(*state_mutex_);
  if (!covedb_stub_) return false;
  if (vdb_id != 0) modify_queue_.Purge(vdb_id);
  proto::DeleteVDbRequestMsg request;
  request.set_name(name);
  struct Nothing {};
  covedb_stub_->DeleteVDb(
      context_, request,
      new ResponseObserver<proto::DeleteVDbResponseMsg, Nothing>(
          "deleteVDb", "Received DeleteVDb response", [](const proto::DeleteVDbResponseMsg&, Nothing&) {},
          [callback = std::move(callback)](Nothing&, const rpc::Status& status) {
            if (callback) callback(status);
          }));
  return true;
}

bool CoveDbClient::GetVDbId(const std::string& name,
                            std::function<void(const std::list<VDbMsg>&, const rpc::Status&)> callback) {
  const StateLock lock(*state_mutex_);
  if (!covedb_stub_) return false;
  proto::GetVDbIdRequestMsg request;
  if (!name.empty()) request.set_name(name);
  covedb_stub_->GetVDbId(context_, request,
                         new ResponseObserver<proto::GetVDbIdResponseMsg, std::list<VDbMsg>>(
                             "getVDbId", "Received GetVDb response",
                             [](const proto::GetVDbIdResponseMsg& response, std::list<VDbMsg>& ids) {
                               ids.insert(ids.end(), response.vdb().begin(), response.vdb().end());
                             },
                             std::move(callback)));
  return true;
}

bool CoveDbClient::Echo(const std::string& text,
                        std::function<void(const std::string&, const rpc::Status&)> callback) {
  const StateLock lock(*state_mutex_);
  if (!daemon_health_stub_) return false;
  daemon::EchoMsg request;
  request.set_text(text);
  daemon_health_stub_->Echo(
      context_, request,
      new ResponseObserver<daemon::EchoMsg, std::string>(
          "echo", "Received Echo response",
          [](const daemon::EchoMsg& response, std::string& echo) { echo = response.text(); },
          std::move(callback)));
  return true;
}

// --- Schema.

bool CoveDbClient::GetServerSchemaVersion(
    std::function<void(const std::string&, const rpc::Status&)> callback) {
  const StateLock lock(*state_mutex_);
  if (!ops_stub_) return false;
  if (!schema_version_call_allowed_) {
    ZLOG_WARN("Response is still pending from the previous call to GetServerSchemaVersion");
    return false;
  }
  schema_version_call_allowed_ = false;
  auto done = [weak = weak_from_this(), callback = std::move(callback)](const std::string& version,
                                                                        const rpc::Status& status) {
    if (const auto client = weak.lock()) {
      const ObserverLock locks(*client);
      client->schema_version_call_allowed_ = true;
    }
    if (callback) callback(version, status);
  };
  ops_stub_->GetSchemaVersion(context_, proto::GetSchemaVersionRequestMsg(),
                              new ResponseObserver<proto::GetSchemaVersionResponseMsg, std::string>(
                                  "getSchemaVersion", "Received Get Schema Version Response",
                                  [](const proto::GetSchemaVersionResponseMsg& response,
                                     std::string& version) { version = response.version(); },
                                  std::move(done)));
  return true;
}

bool CoveDbClient::GetServerSchema(
    std::function<void(const std::string&, const std::string&, const rpc::Status&)> callback) {
  const StateLock lock(*state_mutex_);
  if (!ops_stub_) return false;
  if (!schema_call_allowed_) {
    ZLOG_WARN("Response is still pending from the previous call toGetServerSchema");
    return false;
  }
  schema_call_allowed_ = false;
  auto done = [weak = weak_from_this(), callback = std::move(callback)](
                  const proto::GetSchemaResponseMsg& schema, const rpc::Status& status) {
    if (const auto client = weak.lock()) {
      const ObserverLock locks(*client);
      client->schema_call_allowed_ = true;
    }
    if (callback) callback(schema.schema(), schema.version(), status);
  };
  ops_stub_->GetSchema(context_, proto::GetSchemaRequestMsg(),
                       new ResponseObserver<proto::GetSchemaResponseMsg, proto::GetSchemaResponseMsg>(
                           "getSchema", "Received Get Schema Response",
                           [](const proto::GetSchemaResponseMsg& response,
                              proto::GetSchemaResponseMsg& schema) { schema = response; },
                           std::move(done)));
  return true;
}

void CoveDbClient::SetVersionResponseTimeout(uint32_t seconds) {
  const StateLock lock(*state_mutex_);
  version_response_timeout_s_ = seconds;
}

void CoveDbClient::SetVersionConstraint(ObjectType type, std::string version,
                                        std::function<void(ObjectType)> on_failure) {
  const StateLock lock(*state_mutex_);
  server_schema_.SetVersionConstraint(type, std::move(version), std::move(on_failure));
}

std::shared_ptr<Timer> CoveDbClient::StartResponseTimer(void (CoveDbClient::*handler)()) {
  return provider_.timers().Schedule(std::chrono::seconds(version_response_timeout_s_),
                                     WeakCall(
                                         weak_from_this(),
                                         [handler](CoveDbClient& client) {
                                           const ObserverLock lock(client);
                                           (client.*handler)();
                                         },
                                         [] { ZLOG_DEBUG("CoveDbClient is already destroyed"); }));
}

void CoveDbClient::GetServerSchemaAndVersion() {
  const auto gone = [] { ZLOG_DEBUG("CoveDbClient is already destroyed"); };
  const bool schema_sent = GetServerSchema(WeakCall(
      weak_from_this(),
      [](CoveDbClient& client, const std::string& schema, const std::string&, const rpc::Status& status) {
        client.CoveDbServerSchemaResponseHandler(schema, status);
      },
      gone));
  if (schema_sent) {
    server_schema_.SetSchemaState(CallState::kWaiting);
    schema_timer_ = StartResponseTimer(&CoveDbClient::GetServerSchemaTimeoutHandler);
  } else {
    ZLOG_TO(kLog, kLogError, "CoveDbClient: Failed to get server schema");
  }
  const bool version_sent = GetServerSchemaVersion(WeakCall(
      weak_from_this(),
      [](CoveDbClient& client, const std::string& version, const rpc::Status& status) {
        client.CoveDbServerSchemaVersionResponseHandler(version, status);
      },
      gone));
  if (version_sent) {
    server_schema_.SetVersionState(CallState::kWaiting);
    schema_version_timer_ = StartResponseTimer(&CoveDbClient::GetServerSchemaVersionTimeoutHandler);
  } else {
    ZLOG_TO(kLog, kLogError, "CoveDbClient: Failed to get server schema version");
  }
}

// A call that failed says nothing of the schema; what is decided without an answer is decided by its timer.
void CoveDbClient::CoveDbServerSchemaResponseHandler(const std::string& schema, const rpc::Status& status) {
  const ObserverLock lock(*this);
  if (!status.ok()) return;
  ZLOG_INFO("Got CoveDbSchema Response");
  server_schema_.SetSchemaState(CallState::kAnswered);
  StopTimer(schema_timer_);
  if (server_schema_.checked()) return;
  server_schema_.SetSchema(schema);
  CheckSchemaAndGoOn();
}

void CoveDbClient::CoveDbServerSchemaVersionResponseHandler(const std::string& version,
                                                            const rpc::Status& status) {
  const ObserverLock lock(*this);
  if (!status.ok()) return;
  ZLOG_INFO("Got CoveDb Server schema version %s", version.c_str());
  server_schema_.SetVersionState(CallState::kAnswered);
  server_schema_.SetVersion(version);
  StopTimer(schema_version_timer_);
  CheckSchemaAndGoOn();
}

void CoveDbClient::GetServerSchemaTimeoutHandler() {
  if (server_schema_.schema_state() != CallState::kWaiting) return;
  ZLOG_INFO("Timeout on GetServerSchema request");
  schema_timer_.reset();
  server_schema_.SetSchemaState(CallState::kTimedOut);
  CheckSchemaAndGoOn();
}

void CoveDbClient::GetServerSchemaVersionTimeoutHandler() {
  if (server_schema_.version_state() != CallState::kWaiting) return;
  ZLOG_INFO("Timeout on server schema version request");
  schema_version_timer_.reset();
  server_schema_.SetVersionState(CallState::kTimedOut);
  server_schema_.SetVersion("0");
  CheckSchemaAndGoOn();
}

// Once per connection, with the first answer that is enough.
void CoveDbClient::CheckSchemaAndGoOn() {
  if (server_schema_.checked()) return;
  if (server_schema_.CheckSchemaCallbackStates()) SetupMonitorsAndSendModify();
}

void CoveDbClient::SetupMonitorsAndSendModify() {
  if (state_ != State::CONNECTED) return;
  if (monitor_session_creation_enabled_) SetupMonitors();
  NotifyChannelStatus(true);
  SendModifyRequest();
}

}  // namespace zem::covedb
