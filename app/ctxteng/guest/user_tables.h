#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "app/ctxteng/base/locks.h"
#include "app/ctxteng/base/lru_cache.h"
#include "app/ctxteng/base/user_metadata.h"

namespace Ctxt {

/// The key of a session of a guest.
std::string SessionKey(const std::string& vc_uuid, uint32_t session_id);

/// What is known about the users of the guests: by session, by desktop, and by the hash of the user's key.
///
/// Threads: all operations from any thread.
/// Limits: 100000 sessions, and as many users as `InitializeMetadata` says; a session beyond the bound is not
/// remembered, which leaves its user to the next connection.
class UserTables {
 public:
  using Value = std::shared_ptr<const LRUCacheValue>;

  /// Makes the cache of users anew.
  void InitializeMetadata(uint32_t capacity);

  void AddSession(const std::string& key, Value value);
  void RemoveSession(const std::string& key);
  Value FindSession(const std::string& key) const;

  /// The user of a desktop, and the session in which that user works there.
  struct Desktop {
    std::string sid;
    uint32_t session_id = 0;
  };
  void AddDesktop(const std::string& vc_uuid, Desktop desktop);
  void RemoveDesktop(const std::string& vc_uuid);
  bool HasDesktop(const std::string& vc_uuid) const;
  std::optional<Desktop> FindDesktop(const std::string& vc_uuid) const;

  /// The user whose key is `user_key`: another one whose key has the same hash is not it.
  Value FindUser(uint32_t hash, const std::string& user_key) const;
  /// The user whose key has this hash, for a caller that knows no more.
  Value FindUserByHash(uint32_t hash) const;
  void PutUser(uint32_t hash, Value value);
  void RemoveUser(uint32_t hash);

  /// The guest is off: its sessions are gone, and so is its desktop's user.
  void ForgetGuest(const std::string& vc_uuid);
  void ClearMetadata();
  void ClearSessions();

 private:
  using Metadata = LRUCache<unsigned int, Value>;

  mutable std::shared_mutex session_lock_;  // guards session_cache_
  std::unordered_map<std::string, Value> session_cache_;
  mutable Locks::Mutex vdi_lock_;  // guards vdi_session_map_
  std::unordered_map<std::string, Desktop> vdi_session_map_;
  mutable Locks::Mutex metadata_lock_;  // guards the pointer
  std::shared_ptr<Metadata> user_metadata_cache_;

  std::shared_ptr<Metadata> metadata() const;
};

}  // namespace Ctxt
