#include "sim/fleet/fleet_story.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "covedbclient/covedb_client.h"

namespace zem::fleet {
namespace {

constexpr auto kStep = std::chrono::seconds(1);
// Beyond every spread and several rounds of retries.
constexpr int kPatienceS = 600;
constexpr int kManagerAwayS = 60;
constexpr int kStoreAwayS = 60;
constexpr int kListS = 10;
// An upgrade takes a twentieth of the fabric at a time, and a host is away this long.
constexpr int kWaves = 20;
constexpr int kUpgradeS = 5;

std::string StoreEndpoint(int host) {
  std::string endpoint = FleetManager::InfoEndpoint(host);
  return endpoint.replace(endpoint.rfind(':'), std::string::npos, ":2480");
}

}  // namespace

size_t ResidentBytes() {
  std::ifstream file("/proc/self/statm");
  size_t pages = 0;
  file >> pages >> pages;
  return pages * static_cast<size_t>(::sysconf(_SC_PAGESIZE));
}

const Fabric::Row Fabric::kRows[] = {
    {"start", &Fabric::Start},          {"manager-restart", &Fabric::RestartManager},
    {"aph-list", &Fabric::ChangeAphs},  {"store-outage", &Fabric::LoseStores},
    {"upgrade-wave", &Fabric::Upgrade},
};

Fabric::Fabric(int hosts) {
  agent_provider_.RunAsync(1);
  store_provider_.RunAsync(1);
  for (int host = 0; host < hosts; ++host) {
    stores_.push_back(std::make_unique<sim::StoreDaemon>(store_provider_, StoreEndpoint(host), registry_));
  }
  manager_ = std::make_unique<FleetManager>(hosts);
  clock_.RunFor(std::chrono::seconds(5));
  bytes_without_agents_ = ResidentBytes();
  counted_ = manager_->load();
  for (int host = 0; host < hosts; ++host) {
    agents_.push_back(std::make_unique<FleetAgent>(agent_provider_, host));
    store_clients_.push_back(std::make_shared<covedb::CoveDbClient>(
        "tarvik-agent", StoreEndpoint(host), agent_provider_, nullptr, true, true, false));
  }
}

Fabric::~Fabric() {
  for (const auto& agent : agents_) agent->Stop();
  store_clients_.clear();
  agents_.clear();
  manager_.reset();
  store_provider_.StopAndWait(true);
  stores_.clear();
  agent_provider_.StopAndWait(true);
}

std::vector<std::string> Fabric::StoryNames() {
  std::vector<std::string> names;
  for (const Row& row : kRows) names.emplace_back(row.name);
  return names;
}

std::vector<Second> Fabric::Tell(std::string_view story) {
  for (const Row& row : kRows) {
    if (story != row.name) continue;
    Seconds seconds;
    (this->*row.tell)(&seconds);
    return seconds;
  }
  throw std::invalid_argument("no story \"" + std::string(story) + "\"");
}

int Fabric::ready() const {
  return static_cast<int>(
      std::count_if(agents_.begin(), agents_.end(), [](const auto& agent) { return agent->ready(); }));
}

int Fabric::stores_connected() const {
  return static_cast<int>(std::count_if(store_clients_.begin(), store_clients_.end(), [](const auto& client) {
    return client->state() == covedb::CoveDbClient::State::CONNECTED;
  }));
}

std::string Fabric::Missing() const {
  std::string text = std::to_string(hosts() - ready()) + " hosts are never ready, " +
                     std::to_string(hosts() - stores_connected()) + " have no store;";
  for (const auto& agent : agents_) {
    if (agent->ready()) continue;
    text += " the first waits for:";
    for (const std::string& name : agent->Waiting()) text.append(" ").append(name);
    break;
  }
  return text;
}

void Fabric::Step(Seconds* seconds) {
  clock_.RunFor(kStep);
  // What the other threads did before this second's begin, while time stood still, belongs to it.
  const Load now = manager_->load();
  seconds->push_back({now - counted_, ready()});
  counted_ = now;
}

void Fabric::UntilReady(Seconds* seconds) {
  for (int waited = 0; ready() < hosts() || stores_connected() < hosts(); ++waited) {
    if (waited == kPatienceS) throw std::runtime_error(Missing());
    Step(seconds);
  }
}

// Power returns: every host starts at the same moment.
void Fabric::Start(Seconds* seconds) {
  for (const auto& agent : agents_) agent->Start();
  for (const auto& client : store_clients_) client->StartAsync();
  UntilReady(seconds);
}

void Fabric::RestartManager(Seconds* seconds) {
  manager_->Stop();
  for (int i = 0; i < kManagerAwayS; ++i) Step(seconds);
  manager_->Start();
  UntilReady(seconds);
}

void Fabric::ChangeAphs(Seconds* seconds) {
  // A vertical counts as served until its agent has seen the new list.
  manager_->MoveMaster();
  for (int i = 0; i < kListS; ++i) Step(seconds);
  UntilReady(seconds);
  manager_->ReplaceAph();
  for (int i = 0; i < kListS; ++i) Step(seconds);
  UntilReady(seconds);
}

void Fabric::LoseStores(Seconds* seconds) {
  for (int host = 0; host < hosts(); ++host) {
    network_.SetAway(StoreEndpoint(host), true);
    network_.Break(StoreEndpoint(host));
  }
  for (int i = 0; i < kStoreAwayS; ++i) Step(seconds);
  for (int host = 0; host < hosts(); ++host) network_.SetAway(StoreEndpoint(host), false);
  UntilReady(seconds);
}

void Fabric::Upgrade(Seconds* seconds) {
  const int wave = std::max(1, hosts() / kWaves);
  for (int first = 0; first < hosts(); first += wave) {
    const int end = std::min(first + wave, hosts());
    for (int host = first; host < end; ++host) agents_[host]->Stop();
    for (int i = 0; i < kUpgradeS; ++i) Step(seconds);
    for (int host = first; host < end; ++host) agents_[host]->Start();
  }
  UntilReady(seconds);
}

}  // namespace zem::fleet
