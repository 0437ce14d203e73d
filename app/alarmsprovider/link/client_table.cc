#include "app/alarmsprovider/link/client_table.h"

#include <mutex>
#include <shared_mutex>
#include <utility>

#include "app/alarmsprovider/link/client.h"
#include "app/alarmsprovider/link/limits.h"

namespace zem::Tarvik {

using SharedLock = std::shared_lock<std::shared_mutex>;
using UniqueLock = std::unique_lock<std::shared_mutex>;

bool ClientTable::Enter(const std::string& key, const SharedClient& client,
                        const std::function<bool()>& before_visible, SharedClient* replaced) {
  const UniqueLock lock(mutex_);
  const auto known = clients_.find(key);
  if (known != clients_.end() ? !known->second->IsClosed() : clients_.size() >= kMaxClients) return false;
  if (!before_visible()) return false;
  if (known != clients_.end()) {
    *replaced = std::exchange(known->second, client);
  } else {
    clients_.emplace(key, client);
  }
  return true;
}

bool ClientTable::Remove(const std::string& key, const Client* client) {
  SharedClient removed;  // ends after the lock is released
  const UniqueLock lock(mutex_);
  const auto found = clients_.find(key);
  if (found == clients_.end() || found->second.get() != client) return false;
  removed = std::move(found->second);
  clients_.erase(found);
  return true;
}

ClientTable::SharedClient ClientTable::Find(const std::string& key) const {
  const SharedLock lock(mutex_);
  const auto found = clients_.find(key);
  return found == clients_.end() ? nullptr : found->second;
}

std::vector<std::pair<std::string, ClientTable::SharedClient>> ClientTable::All() const {
  const SharedLock lock(mutex_);
  return {clients_.begin(), clients_.end()};
}

void ClientTable::Clear() {
  std::unordered_map<std::string, SharedClient> ended;
  const UniqueLock lock(mutex_);
  ended.swap(clients_);
}

}  // namespace zem::Tarvik
