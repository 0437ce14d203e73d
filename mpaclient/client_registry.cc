#include "mpaclient/client_registry.h"

#include <cstdlib>
#include <map>
#include <mutex>
#include <shared_mutex>

#include "framework/log/log.h"
#include "mpaclient/client_factory.h"

namespace zem {
namespace {

constexpr LogSource kLog{"mpa-client"};

struct Clients {
  std::shared_mutex mutex;  // guards the map
  std::map<std::string, std::shared_ptr<MpaClient>> by_name;
};

Clients& TheClients() {
  static Clients clients;
  return clients;
}

void DeliverFromBus(void*, rmqClientMessage* message) { ClientRegistry::Deliver(message); }

}  // namespace

bool ClientRegistry::Register(AsioZemProvider& provider, MpaReceiveCallback callback, const std::string& name,
                              const std::string& id, uint32_t client_type, uint16_t port,
                              uint64_t ack_timeout_us, uint64_t retry_timeout_us,
                              boost::intrusive_ptr<RmqClientInterface> bus) {
  ZLOG_INFO("%s Register mpa client", name.c_str());
  Clients& clients = TheClients();
  const std::lock_guard lock(clients.mutex);
  if (clients.by_name.contains(name)) {
    // Two services under one name would take each other's requests and answers.
    ZLOG_ERROR("00106", "%s is registered already, the second registration is refused", name.c_str());
    return false;
  }
  clients.by_name[name] = Make(
      {provider, std::move(callback), name, id, client_type, port, std::chrono::microseconds(ack_timeout_us),
       std::chrono::microseconds(retry_timeout_us), std::move(bus), &DeliverFromBus});
  return true;
}

std::shared_ptr<MpaClient> ClientRegistry::Make(MpaClientArguments arguments) {
  if (!arguments.bus) arguments.bus = new RmqClient;
  std::shared_ptr<MpaClient> client = MakeMpaClient(std::move(arguments));
  client->CreateAppSpecificInstance(client);
  return client;
}

void ClientRegistry::Retire(MpaClient& client) { client.HandleUnregister(); }

std::shared_ptr<MpaClient> ClientRegistry::Get(const std::string& name) {
  Clients& clients = TheClients();
  const std::shared_lock lock(clients.mutex);
  const auto found = clients.by_name.find(name);
  return found != clients.by_name.end() ? found->second : nullptr;
}

void ClientRegistry::Unregister(const std::string& name) {
  ZLOG_INFO("%s UnRegister mpa client", name.c_str());
  std::shared_ptr<MpaClient> client;
  {
    Clients& clients = TheClients();
    const std::lock_guard lock(clients.mutex);
    const auto found = clients.by_name.find(name);
    if (found == clients.by_name.end()) return;
    client = std::move(found->second);
    clients.by_name.erase(found);
  }
  client->HandleUnregister();
}

std::vector<std::pair<std::string, std::shared_ptr<MpaClient>>> ClientRegistry::All() {
  Clients& clients = TheClients();
  const std::shared_lock lock(clients.mutex);
  return {clients.by_name.begin(), clients.by_name.end()};
}

void ClientRegistry::Deliver(rmqClientMessage* message) {
  const std::string app_type = message->app_type != nullptr ? message->app_type : "";
  if (const auto client = Get(app_type)) {
    client->Deliver(message);
    return;
  }
  MpaClient::LogNoCallback(app_type);
  std::free(message->free_block);
  message->free_block = nullptr;
}

}  // namespace zem
