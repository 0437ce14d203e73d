#include "app/alarmsprovider/link/client_library_communicator.h"

#include <boost/make_shared.hpp>
#include <chrono>
#include <exception>
#include <string_view>
#include <utility>

#include "app/alarmsprovider/link/client_lib_msg_ctx.h"
#include "app/alarmsprovider/link/client_messages.h"
#include "app/alarmsprovider/link/limits.h"
#include "app/alarmsprovider/link/provider_host.h"
#include "app/alarmsprovider/link/provider_service.h"
#include "app/alarmsprovider/link/status_source.h"
#include "framework/log/log.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/provider/weak_call.h"
#include "platform/rpc/server.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};
constexpr LogSource kStreamLog{"mpa-client"};

constexpr const char* kEndpoint = "tcp://127.0.0.1:9100";
constexpr const char* kEndpointId = "AlarmsProvider";
constexpr int64_t kStubTimeoutMs = 30'000;
constexpr auto kStatusRetry = std::chrono::seconds(10);
constexpr std::string_view kPrefix = kClientPrefix;

bool IsClient(const std::string& peer_id) { return peer_id.starts_with(kPrefix); }
std::string SourceIdOf(const std::string& key) { return key.substr(kPrefix.size()); }
std::string KeyOf(const std::string& source_id) { return kClientPrefix + source_id; }

}  // namespace

ClientLibraryCommunicator::ClientLibraryCommunicator(QueueManager& events, StatusQueueManager& statuses,
                                                     ProviderHost& host)
    : host_(host),
      provider_(std::make_unique<AsioZemProvider>()),
      status_source_(std::make_shared<StatusSource>(statuses, host, [this] { TriggerStatusFullSync(); })),
      service_(boost::make_shared<ProviderService>(events, status_source_, host, *this)) {}

ClientLibraryCommunicator::~ClientLibraryCommunicator() { Stop(); }

bool ClientLibraryCommunicator::Start() {
  ZLOG_INFO("Starting Client Library Communicator");
  ZLOG_INFO("Starting Provider Services");
  provider_->RunAsync(1);
  started_ = true;
  try {
    Serve();
  } catch (const std::exception& error) {
    ZLOG_ERROR("OPS60004", "Alarm clients cannot be served at %s: %s", kEndpoint, error.what());
    return false;
  }
  ZLOG_INFO("Client Library Communicator Started.");
  return true;
}

void ClientLibraryCommunicator::Serve() {
  rpc::Transport& transport = provider_->rpc();
  const auto gone = [] {};
  transport.SetConnectionHooks(
      WeakCall(
          weak_from_this(),
          [](ClientLibraryCommunicator& self, const rpc::ConnectionInfo& info) { self.OnConnectionUp(info); },
          gone),
      WeakCall(
          weak_from_this(),
          [](ClientLibraryCommunicator& self, const rpc::ConnectionInfo& info, rpc::CloseReason) {
            self.OnConnectionDown(info);
          },
          gone));
  rpc::ConnectionOptions options;
  options.accepted_limit = kMaxClients;
  // The server shares the service; the aliasing pointer keeps the service's own reference count.
  const std::shared_ptr<rpc::ServiceBase> service(service_.get(), [kept = service_](rpc::ServiceBase*) {});
  server_ = rpc::ServerBuilder(transport)
                .AddLocalEndpointId(kEndpointId)
                .AddListeningEndpoint(net::Endpoint(kEndpoint), options)
                .RegisterService(service)
                .BuildStarted();
}

void ClientLibraryCommunicator::Stop() {
  clients_.Clear();
  if (!std::exchange(started_, false)) return;
  provider_->StopAndWait(true);
}

// --- Clients that serve requests themselves.

void ClientLibraryCommunicator::OnConnectionUp(const rpc::ConnectionInfo& info) {
  ZLOG_INFO("Info: %s (UP)", info.text.c_str());
  ZLOG_DEBUG("Count: %d", static_cast<int>(info.peer_ids.size()));
  for (const std::string& id : info.peer_ids) {
    if (!IsClient(id)) continue;
    {
      const std::lock_guard lock(peers_mutex_);
      ++peers_[id];
    }
    if (clients_.Find(id) == nullptr) RequestStub(id);
  }
}

// The channels of the connection have ended already.  A client that has come again on a new connection before
// the end of the old one was seen got no stub then, because its entry was still there.
void ClientLibraryCommunicator::OnConnectionDown(const rpc::ConnectionInfo& info) {
  ZLOG_INFO("Info: %s (DOWN)", info.text.c_str());
  for (const std::string& id : info.peer_ids) {
    if (!IsClient(id)) continue;
    {
      const std::lock_guard lock(peers_mutex_);
      const auto found = peers_.find(id);
      if (found == peers_.end()) continue;
      if (--found->second <= 0) {
        peers_.erase(found);
        continue;
      }
    }
    if (clients_.Find(id) == nullptr) RequestStub(id);
  }
}

void ClientLibraryCommunicator::RequestStub(const std::string& peer_id) {
  {
    const std::lock_guard lock(peers_mutex_);
    const auto coming = stubs_coming_.find(peer_id);
    if (coming != stubs_coming_.end()) {
      coming->second = true;
      return;
    }
    if (stubs_coming_.size() >= kMaxClients) return;
    stubs_coming_.emplace(peer_id, false);
  }
  ZLOG_INFO("Scheduling stub create for Endpoint (%s)", peer_id.c_str());
  rpc::StubRequest request;
  request.source_id = kEndpointId;
  request.target = net::Endpoint("zem://" + peer_id);
  request.policy = RetryPolicy{1000, 4000, 2.0, -1};
  request.timeout_ms = kStubTimeoutMs;
  provider_->rpc().stubs().create<JavaClient::Stub>(
      request, [weak = weak_from_this(), peer_id](std::optional<JavaClient::Stub> stub, const rpc::Status&) {
        if (const auto self = weak.lock()) self->OnStub(peer_id, std::move(stub));
      });
}

void ClientLibraryCommunicator::OnStub(const std::string& peer_id, std::optional<JavaClient::Stub> stub) {
  bool again = false;
  {
    const std::lock_guard lock(peers_mutex_);
    again = stubs_coming_[peer_id] && peers_.count(peer_id) != 0;
    stubs_coming_.erase(peer_id);
  }
  if (!stub) {
    ZLOG_INFO("Stub creation failed for (%s)", peer_id.c_str());
    // The time-out was that of an earlier connection.
    if (again) RequestStub(peer_id);
    return;
  }
  ZLOG_INFO("Stub created successfully for (%s)", peer_id.c_str());
  const auto client = boost::make_shared<JavaClient>(stub);
  ClientTable::SharedClient replaced;
  const bool entered = clients_.Enter(
      peer_id, client,
      [&] {
        // Posted at once when the stream is down already.
        stub->SetOnStreamDown([weak = weak_from_this(), client = boost::weak_ptr<JavaClient>(client),
                               peer_id](rpc::CloseReason reason) {
          ZLOG_TO(kStreamLog, kLogDebug, "OnStreamDown_ for Endpoint (%s), reason (%s)", peer_id.c_str(),
                  rpc::CloseReasonToCStr(reason));
          if (const auto self = weak.lock()) self->OnStreamDown(peer_id, client);
        });
        return true;
      },
      &replaced);
  if (!entered) return;
  host_.AddSourceId(SourceIdOf(peer_id));
  FullSync(peer_id, false);
}

void ClientLibraryCommunicator::OnStreamDown(const std::string& peer_id,
                                             const boost::weak_ptr<JavaClient>& client) {
  ZLOG_INFO("Stub down for Endpoint (%s)", peer_id.c_str());
  if (const auto ended = client.lock()) clients_.Remove(peer_id, ended.get());
}

// --- Clients that subscribe.

boost::shared_ptr<CppPythonClient> ClientLibraryCommunicator::MakeSubscriber(const std::string& source_id,
                                                                             CppPythonClient::Call call) {
  return boost::make_shared<CppPythonClient>(*provider_, source_id, std::move(call));
}

bool ClientLibraryCommunicator::AddClient(const boost::shared_ptr<CppPythonClient>& client,
                                          const std::string& source_id) {
  // The welcome is written before anybody else can find the client, so that it is the first message.
  ClientTable::SharedClient replaced;
  if (!clients_.Enter(
          KeyOf(source_id), client, [&] { return client->WriteWelcome(); }, &replaced)) {
    ZLOG_INFO("Client with sourceId: %s already connected. Not reconnecting", source_id.c_str());
    return false;
  }
  if (const auto old = boost::dynamic_pointer_cast<CppPythonClient>(replaced)) old->AbandonRequests();
  ZLOG_INFO("Client: %s connected", source_id.c_str());
  host_.AddSourceId(source_id);
  return true;
}

void ClientLibraryCommunicator::RemoveClient(const std::string& source_id,
                                             const boost::shared_ptr<CppPythonClient>& client) {
  if (clients_.Remove(KeyOf(source_id), client.get())) {
    ZLOG_INFO("Client: %s disconnected", source_id.c_str());
  }
  client->AbandonRequests();
}

void ClientLibraryCommunicator::HandleResponse(const CppPythonClient::Response& response) {
  const auto subscriber =
      boost::dynamic_pointer_cast<CppPythonClient>(clients_.Find(KeyOf(response.source_id())));
  if (subscriber == nullptr) {
    ZLOG_INFO("No subscribed client with source-id: %s. Dropping message", response.source_id().c_str());
    return;
  }
  subscriber->HandleResponse(response);
}

// --- Requests to the clients.

void ClientLibraryCommunicator::Sync(const std::shared_ptr<SyncCtx>& context) {
  const std::string& source_id = context->instance().source_id;
  const ClientTable::SharedClient client = clients_.Find(KeyOf(source_id));
  if (client == nullptr) {
    ZLOG_INFO("Client : %s does not exist. Dropping sync request.", source_id.c_str());
    context->CompleteWithoutResult();
    return;
  }
  try {
    client->Sync(context);
  } catch (const std::exception& error) {
    ZLOG_WARN("Error sending Sync request for sourceId: %s. %s", source_id.c_str(), error.what());
    context->CompleteWithoutResult();
  }
}

void ClientLibraryCommunicator::FullSyncAll(const std::shared_ptr<FullSyncCtx>& context) {
  for (const auto& [key, client] : clients_.All()) FullSyncOne(key, *client);
  context->Complete(true);
}

void ClientLibraryCommunicator::FullSync(const std::string& id, bool withPrefix) {
  const std::string key = withPrefix ? KeyOf(id) : id;
  if (const ClientTable::SharedClient client = clients_.Find(key)) {
    FullSyncOne(key, *client);
  } else {
    ZLOG_WARN("FullSync invoked on unknown client: %s", key.c_str());
  }
}

void ClientLibraryCommunicator::FullSyncOne(const std::string& key, Client& client) {
  try {
    client.FullSync(std::make_shared<FullSyncCtx>());
  } catch (const std::exception& error) {
    ZLOG_WARN("Error sending FullSync request for client: %s. %s", key.c_str(), error.what());
  }
}

void ClientLibraryCommunicator::CollectSourceIds(std::set<std::string>* ids) const {
  for (const auto& [key, client] : clients_.All()) ids->insert(SourceIdOf(key));
}

// --- The status source.

void ClientLibraryCommunicator::TriggerStatusFullSync() {
  provider_->dispatcher().Post([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->RequestStatusFullSync();
  });
}

void ClientLibraryCommunicator::RequestStatusFullSync() {
  const std::lock_guard lock(status_timer_mutex_);
  if (status_timer_) status_timer_->Cancel();
  status_timer_ = nullptr;
  if (status_source_->RequestFullSync()) return;
  ZLOG_WARN("Status FullSync failed - retrying");
  status_timer_ = provider_->timers().Schedule(kStatusRetry, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->RequestStatusFullSync();
  });
}

void ClientLibraryCommunicator::SendConfig(const std::map<std::string, uint32_t>& table, bool enabled) {
  provider_->dispatcher().Post(
      [source = status_source_, table, enabled] { source->SendConfig(table, enabled); });
}

}  // namespace zem::Tarvik
