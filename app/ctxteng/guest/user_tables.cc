#include "app/ctxteng/guest/user_tables.h"

#include <mutex>
#include <utility>

#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr size_t kMostSessions = 100000;

}  // namespace

std::string SessionKey(const std::string& vc_uuid, uint32_t session_id) {
  return vc_uuid + std::to_string(session_id);
}

void UserTables::InitializeMetadata(uint32_t capacity) {
  auto cache = std::make_shared<Metadata>(capacity);
  {
    const Locks::ScopedLock lock(metadata_lock_);
    user_metadata_cache_ = std::move(cache);
  }
  ZLOG_INFO("Initialized userMetadata cache with size: %d", static_cast<int>(capacity));
}

void UserTables::AddSession(const std::string& key, Value value) {
  Value old;
  bool full = false;
  {
    const std::unique_lock lock(session_lock_);
    if (const auto found = session_cache_.find(key); found != session_cache_.end()) {
      old = std::exchange(found->second, value);
    } else if (session_cache_.size() < kMostSessions) {
      session_cache_.emplace(key, value);
    } else {
      full = true;
    }
  }
  if (old != nullptr) {
    ZLOG_INFO(
        "CtxtCore: Found old session cache entry, removing it. session id: %d, vmid-session id: %s, username "
        "%s, domainname %s",
        static_cast<int>(old->session_id), key.c_str(), old->user_name.c_str(), old->domain_name.c_str());
  }
  if (full) {
    ZLOG_WARN("CtxtCore: The session cache is full, not adding %s", key.c_str());
    return;
  }
  ZLOG_INFO(
      "CtxtCore: Adding new session cache entry: session id: %d, vmid-session id: %s, sid %s, username %s, "
      "domainname %s ",
      static_cast<int>(value->session_id), key.c_str(), value->sid.c_str(), value->user_name.c_str(),
      value->domain_name.c_str());
}

void UserTables::RemoveSession(const std::string& key) {
  Value old;
  {
    const std::unique_lock lock(session_lock_);
    if (const auto found = session_cache_.find(key); found != session_cache_.end()) {
      old = std::move(found->second);
      session_cache_.erase(found);
    }
  }
  if (old == nullptr) {
    ZLOG_INFO("CtxtCore: Session cache entry not found for removing due to missed logon: vmid-sessionid: %s",
              key.c_str());
    return;
  }
  ZLOG_INFO(
      "CtxtCore: Removing session cache entry: session id: %d, vmid-session id: %s, sid %s, username %s, "
      "domainname %s ",
      static_cast<int>(old->session_id), key.c_str(), old->sid.c_str(), old->user_name.c_str(),
      old->domain_name.c_str());
}

UserTables::Value UserTables::FindSession(const std::string& key) const {
  const std::shared_lock lock(session_lock_);
  const auto found = session_cache_.find(key);
  return found == session_cache_.end() ? nullptr : found->second;
}

void UserTables::AddDesktop(const std::string& vc_uuid, Desktop desktop) {
  const std::string sid = desktop.sid;
  {
    const Locks::ScopedLock lock(vdi_lock_);
    vdi_session_map_[vc_uuid] = std::move(desktop);
  }
  ZLOG_INFO("CtxtCore: vdi session info for uuid: %s, userSID: %s added", vc_uuid.c_str(), sid.c_str());
}

void UserTables::RemoveDesktop(const std::string& vc_uuid) {
  bool removed = false;
  {
    const Locks::ScopedLock lock(vdi_lock_);
    removed = vdi_session_map_.erase(vc_uuid) != 0;
  }
  if (removed) {
    ZLOG_INFO("CtxtCore: vdi session info for uuid: %s deleted", vc_uuid.c_str());
  } else {
    ZLOG_INFO("CtxtCore: nothing to delete for uuid: %s", vc_uuid.c_str());
  }
}

bool UserTables::HasDesktop(const std::string& vc_uuid) const {
  const Locks::ScopedLock lock(vdi_lock_);
  return vdi_session_map_.count(vc_uuid) != 0;
}

std::optional<UserTables::Desktop> UserTables::FindDesktop(const std::string& vc_uuid) const {
  const Locks::ScopedLock lock(vdi_lock_);
  const auto found = vdi_session_map_.find(vc_uuid);
  return found == vdi_session_map_.end() ? std::nullopt : std::optional(found->second);
}

std::shared_ptr<UserTables::Metadata> UserTables::metadata() const {
  const Locks::ScopedLock lock(metadata_lock_);
  return user_metadata_cache_;
}

UserTables::Value UserTables::FindUser(uint32_t hash, const std::string& user_key) const {
  const auto cache = metadata();
  if (cache == nullptr) return nullptr;
  const auto found = cache->Get(hash);
  return found && (*found)->sid == user_key ? *found : nullptr;
}

UserTables::Value UserTables::FindUserByHash(uint32_t hash) const {
  const auto cache = metadata();
  return cache == nullptr ? nullptr : cache->Get(hash).value_or(nullptr);
}

void UserTables::PutUser(uint32_t hash, Value value) {
  if (const auto cache = metadata()) cache->Put(hash, std::move(value));
}

void UserTables::RemoveUser(uint32_t hash) {
  if (const auto cache = metadata()) cache->Remove(hash);
}

void UserTables::ForgetGuest(const std::string& vc_uuid) {
  {
    const std::unique_lock lock(session_lock_);
    std::erase_if(session_cache_, [&](const auto& entry) { return entry.first.starts_with(vc_uuid); });
  }
  const Locks::ScopedLock lock(vdi_lock_);
  vdi_session_map_.erase(vc_uuid);
}

void UserTables::ClearMetadata() {
  if (const auto cache = metadata()) cache->Clear();
}

void UserTables::ClearSessions() {
  {
    const std::unique_lock lock(session_lock_);
    session_cache_.clear();
  }
  const Locks::ScopedLock lock(vdi_lock_);
  vdi_session_map_.clear();
}

}  // namespace Ctxt
