#pragma once

#include <boost/shared_ptr.hpp>
#include <functional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace zem::Tarvik {

class Client;

/// The connected clients by key.
///
/// An entry is only removed by naming the client in it: what a client that was refused or replaced leaves
/// behind must not end the one that came after it.
///
/// Threads: all operations from any thread.
class ClientTable {
 public:
  using SharedClient = boost::shared_ptr<Client>;

  /// Calls `before_visible` and enters the client, unless the key has a client that is not closed, the table
  /// is full or `before_visible` returns false.  A closed client is replaced, and handed over in `*replaced`.
  [[nodiscard]] bool Enter(const std::string& key, const SharedClient& client,
                           const std::function<bool()>& before_visible, SharedClient* replaced);
  /// Returns false when the key does not have this client.
  bool Remove(const std::string& key, const Client* client);
  /// Null when the key has no client.
  SharedClient Find(const std::string& key) const;
  /// All clients with their keys, in no order.
  std::vector<std::pair<std::string, SharedClient>> All() const;
  /// Removes all clients; they end outside the lock.
  void Clear();

 private:
  mutable std::shared_mutex mutex_;  // guards clients_
  std::unordered_map<std::string, SharedClient> clients_;
};

}  // namespace zem::Tarvik
