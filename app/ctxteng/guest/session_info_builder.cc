#include "app/ctxteng/guest/session_info_builder.h"

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/guest/endvat_util.h"
#include "app/ctxteng/guest/event_keys.h"
#include "app/ctxteng/guest/user_tables.h"
#include "framework/log/log.h"
#include "platform/hash/jhash.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

// Offsets in the buffer of a system event.
constexpr size_t kUserName = 0;
constexpr size_t kDomainName = 12;
constexpr size_t kUserId = 24;
constexpr size_t kSessionId = 36;
constexpr size_t kClientIp = 40;

// The user of the event.  False when the library does not name one.
bool TakeUserId(const LibraryBuffer& buffer, const VmData& vm, UserSessionInfo& info) {
  const std::string_view id = buffer.RawTextAt(kUserId);
  if (id.empty()) return false;
  if (vm.os.os_type == kWindows) {
    info.sid = buffer.TextAt(kUserId);
  } else if (const std::string_view uid = buffer.BytesBehind(kUserId + 4, 4); uid.size() == 4) {
    std::memcpy(&info.uid, uid.data(), uid.size());
  } else {
    return false;
  }
  info.dfw_key = DfwKey(vm, info.sid, static_cast<uint32_t>(info.uid));
  return true;
}

void TakeLogon(const LibraryBuffer& buffer, const VmData& vm, UserSessionInfo& info) {
  if (!TakeUserId(buffer, vm, info))
    ZLOG_INFO("Context: Sid/Uid buffer NULL on logon, session id: %u", buffer.Number<uint32_t>(kSessionId));
  info.user_name = buffer.TextAt(kUserName);
  info.domain_name = buffer.TextAt(kDomainName);
  info.session_id = static_cast<int32_t>(buffer.Number<uint32_t>(kSessionId));
  const auto ip_version = buffer.Number<uint32_t>(kClientIp);
  if (ip_version < 2) info.client_ip = buffer.IpAt(kClientIp);
  info.client_ip_version = ip_version;
  LibraryBuffer groups_buffer;
  const uint32_t status =
      EndvatUtil::GetSessionGroups(static_cast<uint32_t>(info.session_id), true, &groups_buffer);
  if (status != ENDVAT_SUCCESS || !groups_buffer) {
    ZLOG_CTX_ERROR(
        1055, "Context: Failed to obtain session group info on login, session id: %d, sid: %s, error = %s",
        info.session_id, info.sid.c_str(), EndvatUtil::ErrorName(status));
    return;
  }
  Groups groups = GroupsOf(vm, groups_buffer);
  info.group_count = groups.count;
  info.group_sids = std::move(groups.sids);
  info.group_ids = std::move(groups.ids);
}

void TakeLogoff(const LibraryBuffer& buffer, const VmData& vm, const UserTables& users,
                UserSessionInfo& info) {
  const auto session = buffer.Number<uint32_t>(kSessionId);
  info.session_id = static_cast<int32_t>(session);
  if (vm.os.os_type == kWindows) {
    const char* const event = SessionTypeName(info.session_type);
    const auto known = users.FindSession(SessionKey(vm.vc_uuid, session));
    if (known == nullptr) {
      ZLOG_INFO(
          "Context: Windows %s event - session cache miss due to missed logon: session id: %d, vmid: %s",
          event, info.session_id, vm.vc_uuid.c_str());
      return;
    }
    info.dfw_key = known->sid;
    info.sid = known->sid;
    info.user_name = known->user_name;
    info.domain_name = known->domain_name;
    ZLOG_INFO(
        "Context: Windows %s event - found session cache entry: session id: %d, vmid: %s, sid %s, username "
        "%s, domainname %s ",
        event, info.session_id, vm.vc_uuid.c_str(), info.sid.c_str(), info.user_name.c_str(),
        info.domain_name.c_str());
    return;
  }
  if (!TakeUserId(buffer, vm, info)) ZLOG_INFO("Context: Uid buffer NULL on logout, session id: %u", session);
  info.user_name = buffer.TextAt(kUserName);
  info.domain_name = buffer.TextAt(kDomainName);
}

}  // namespace

std::shared_ptr<UserSessionInfo> BuildUserSessionInfo(uint32_t type, ENDVAT_HANDLE handle, const VmData& vm,
                                                      const UserTables& users) {
  auto info = std::make_shared<UserSessionInfo>();
  LibraryBuffer buffer;
  const uint32_t status = EndvatUtil::GetSystemEventInfo(handle, &buffer);
  if (status != ENDVAT_SUCCESS || !buffer)
    throw EndvatApiError("GetSessionInfo", status, EndvatUtil::ErrorName(status));
  if (type > 7) {
    ZLOG_CTX_ERROR(401, "Context: Ignoring session info type %s", SessionTypeName(SESSION_TYPE_INVALID));
    return info;
  }
  info->vc_uuid = vm.vc_uuid;
  info->session_type = type + 1;
  info->timestamp = WallMilliseconds();
  if (type % 2 == 0) {
    TakeLogon(buffer, vm, *info);
  } else {
    TakeLogoff(buffer, vm, users, *info);
  }
  if (!info->dfw_key.empty()) info->user_hash = zem::jhash32(info->dfw_key);
  return info;
}

void Dump(const UserSessionInfo& info) {
  ZLOG_DEBUG(
      "Context: Session dump - vcUuid: %s, dfwKey: %s, sid: %s, uid: %d, type: %s, user name: %s, domain "
      "name: %s, session id: %d, client ip: %s, ip version: %u, timestamp: %lu, group count: %d, group hash: "
      "%lu",
      info.vc_uuid.c_str(), info.dfw_key.c_str(), info.sid.c_str(), info.uid,
      SessionTypeName(info.session_type), info.user_name.c_str(), info.domain_name.c_str(), info.session_id,
      info.client_ip.c_str(), info.client_ip_version, info.timestamp, static_cast<int>(info.group_count),
      info.group_hash);
}

uint32_t FetchUserInfo(const VmData& vm, UserTables& users) {
  constexpr size_t kFirst = 4;
  constexpr size_t kRecord = 44;
  constexpr uint32_t kActive = 0;
  ZLOG_INFO("Context: Fetch user info fo VMs vcUuid: %s", vm.vc_uuid.c_str());
  LibraryBuffer buffer;
  const uint32_t status = EndvatUtil::GetLogonSessions(&buffer);
  if (status != ENDVAT_SUCCESS || !buffer) {
    ZLOG_INFO("Context: QueryLogonSessionsEx err : %s", EndvatUtil::ErrorName(status));
    return status;
  }
  const auto count = buffer.Number<uint32_t>(0);
  ZLOG_INFO("Context: Total logons: %u", count);
  size_t at = kFirst;
  size_t text_left = buffer.size();  // as for groups: no more text than the buffer can hold
  for (uint32_t i = 0; i < count && buffer.Has(at, kRecord); ++i, at += kRecord) {
    const auto state = buffer.Number<uint32_t>(at + 4);
    if (state != kActive) continue;
    auto user = std::make_shared<LRUCacheValue>();
    user->session_id = buffer.Number<uint32_t>(at);
    user->user_name = buffer.TextAt(at + 8);
    user->domain_name = buffer.TextAt(at + 20);
    user->sid = buffer.TextAt(at + 32);
    const size_t text = user->user_name.size() + user->domain_name.size() + user->sid.size();
    if (text > text_left) break;
    text_left -= text;
    ZLOG_INFO("Context: Query Logon Session %u : ID [%lu] State [%d],Username [%s] Domain [%s] Sid [%s]", i,
              static_cast<unsigned long>(user->session_id), static_cast<int>(state), user->user_name.c_str(),
              user->domain_name.c_str(), user->sid.c_str());
    if (user->sid.empty()) continue;
    users.PutUser(zem::jhash32(user->sid), user);
    users.AddDesktop(vm.vc_uuid, {user->sid, user->session_id});
    users.AddSession(SessionKey(vm.vc_uuid, user->session_id), user);
  }
  return status;
}

}  // namespace Ctxt
