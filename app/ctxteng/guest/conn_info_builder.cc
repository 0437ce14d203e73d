#include "app/ctxteng/guest/conn_info_builder.h"

#include <cinttypes>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/guest/endvat_util.h"
#include "app/ctxteng/guest/user_tables.h"
#include "framework/log/log.h"
#include "platform/hash/jhash.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

// Offsets in the buffer of a network event.
constexpr size_t kProtocol = 0;
constexpr size_t kSourceIp = 4;
constexpr size_t kSourcePort = 24;
constexpr size_t kDestinationIp = 26;
constexpr size_t kDestinationPort = 46;
constexpr size_t kUser = 48;
constexpr size_t kPid = 60;
constexpr size_t kCreationTime = 68;

constexpr uint64_t kIdleProcess = 0;
constexpr uint64_t kSystemProcess = 4;

constexpr uint32_t kIpv4 = 0;
constexpr uint32_t kIpv6 = 1;

uint32_t ProtocolOf(uint32_t protocol, uint32_t ip_version) {
  switch (protocol) {
    case 0:
      return 6;
    case 1:
      return 17;
    case 2:
      if (ip_version == kIpv4) return 1;
      if (ip_version == kIpv6) return 58;
      ZLOG_CTX_ERROR(1057, "EndvatUtil: Unknown ICMP type %d for connection", static_cast<int>(ip_version));
      return kProtocolUnknown;
    default:
      ZLOG_CTX_ERROR(1058, "EndvatUtil: Unknown protocol type %d for connection", static_cast<int>(protocol));
      return kProtocolUnknown;
  }
}

const char* ProtocolName(uint32_t protocol) {
  switch (protocol) {
    case 6:
      return "TCP";
    case 17:
      return "UDP";
    case 1:
      return "ICMP";
    case 58:
      return "ICMPV6";
    default:
      return "UNKNOWN";
  }
}

const char* SystemName(uint32_t os_type) {
  return os_type == kWindows ? "WINDOWS" : os_type == kLinux ? "LINUX" : "UNKNOWN";
}

const char* IpVersionName(uint32_t version) {
  return version == kIpv4 ? "IPv4" : version == kIpv6 ? "IPv6" : "UNKNOWN";
}

std::string Hexadecimal(std::string_view bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text(bytes.size() * 2, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = kDigits[static_cast<uint8_t>(bytes[i]) >> 4];
    text[2 * i + 1] = kDigits[static_cast<uint8_t>(bytes[i]) & 15];
  }
  return text;
}

}  // namespace

// The record on its way, and what one step learns for a later one.
struct ConnInfoBuilder::Work {
  const VmData& vm;
  ENDVAT_HANDLE handle;
  ENDVAT_PROCESS_ID process;
  ConnInfo& info;
  bool groups_of_session = false;

  bool windows() const { return vm.os.os_type == kWindows; }
  bool windows_system_process() const {
    return windows() && (process.pid == kIdleProcess || process.pid == kSystemProcess);
  }
};

std::shared_ptr<ConnInfo> ConnInfoBuilder::Build(uint32_t type, ENDVAT_HANDLE handle,
                                                 const VmData& vm) const {
  auto info = std::make_shared<ConnInfo>();
  info->vc_uuid = vm.vc_uuid;
  info->nc_vc_uuid = vm.nc_vc_uuid;
  LibraryBuffer buffer;
  const uint32_t status = EndvatUtil::GetNetworkInfo(handle, &buffer);
  if (status != ENDVAT_SUCCESS || !buffer) {
    ZLOG_CTX_ERROR(1055, "Context: Ignoring network event info failure %s, vm %s",
                   EndvatUtil::ErrorName(status), vm.vc_uuid.c_str());
    throw EndvatApiError("GetNetworkEventInfo", status, EndvatUtil::ErrorName(status));
  }
  TakeAddresses(buffer, type, *info);
  Work work{vm, handle, {buffer.Number<uint64_t>(kPid), buffer.Number<uint64_t>(kCreationTime)}, *info};
  info->pid = work.process.pid;
  info->ctime = work.process.ctime;
  TakeUserId(buffer, work);
  TakeGroups(work);
  TakeUser(work);
  TakeProcess(work);
  TakeProcessHash(work);
  return info;
}

void ConnInfoBuilder::TakeAddresses(const LibraryBuffer& buffer, uint32_t type, ConnInfo& info) const {
  info.src_ip = buffer.IpAt(kSourceIp);
  info.src_port = buffer.Number<uint16_t>(kSourcePort);
  info.dest_ip = buffer.IpAt(kDestinationIp);
  info.dest_port = buffer.Number<uint16_t>(kDestinationPort);
  info.ip_version = buffer.Number<uint32_t>(kSourceIp);
  if (info.ip_version > kIpv6) {
    ZLOG_INFO("EndvatUtil: IP address not currently available, %d", static_cast<int>(info.ip_version));
    info.ip_version = kIpVersionUnknown;
  }
  info.protocol = ProtocolOf(buffer.Number<uint32_t>(kProtocol), info.ip_version);
  info.conn_type = type <= 5 ? type + 1 : static_cast<uint32_t>(CONN_TYPE_INVALID);
  info.timestamp = WallMilliseconds();
}

void ConnInfoBuilder::TakeUserId(const LibraryBuffer& buffer, Work& work) const {
  ConnInfo& info = work.info;
  if (work.windows()) {
    info.os_type = kWindows;
    info.sid = buffer.TextAt(kUser);
    ReplaceSystemAccount(work);
  } else if (work.vm.os.os_type == kLinux) {
    info.os_type = kLinux;
    info.uid = static_cast<int32_t>(buffer.Number<uint32_t>(kUser));
  }
  info.user_dfw_key = DfwKey(work.vm, info.sid, static_cast<uint32_t>(info.uid));
}

// A service that works for the user of a desktop opens connections under a system account; the firewall's
// rules name the user.
void ConnInfoBuilder::ReplaceSystemAccount(Work& work) const {
  ConnInfo& info = work.info;
  const char* const vm = work.vm.vc_uuid.c_str();
  if (work.vm.os.terminal_svc_enabled) {
    ZLOG_DEBUG("Context: terminal services disabled for vm: %s", vm);
    return;
  }
  if (!is_well_known_ || !is_well_known_(info.sid)) {
    ZLOG_DEBUG("Context: Not a system sid: %s", info.sid.c_str());
    return;
  }
  ZLOG_DEBUG("Context: got system sid: %s in NW event", info.sid.c_str());
  const auto desktop = users_.FindDesktop(work.vm.vc_uuid);
  if (!desktop) {
    ZLOG_DEBUG("Context: user sid for vm: %s not found in VDI sessions map", vm);
    return;
  }
  const uint32_t hash = zem::jhash32(desktop->sid);
  const auto user = users_.FindUser(hash, desktop->sid);
  if (user == nullptr) {
    ZLOG_INFO("Context: cannot find lru cache val for sid: %s, hash: %u", desktop->sid.c_str(), hash);
    return;
  }
  info.sid = desktop->sid;
  // The user's entry may come from another guest; the session has to be this one's.
  info.session.session_id = static_cast<int32_t>(desktop->session_id);
  work.groups_of_session = true;
  ZLOG_DEBUG("Context: UserInfo - usid: %s name: %s, domain: %s, sessionID: %d", info.sid.c_str(),
             user->user_name.c_str(), user->domain_name.c_str(), info.session.session_id);
}

void ConnInfoBuilder::TakeGroups(Work& work) const {
  ConnInfo& info = work.info;
  LibraryBuffer buffer;
  uint32_t status;
  if (work.groups_of_session) {
    ZLOG_DEBUG("Context: Retrieving group sids using session ID: %d", info.session.session_id);
    status = EndvatUtil::GetSessionGroups(static_cast<uint32_t>(info.session.session_id), false, &buffer);
  } else {
    ZLOG_DEBUG("Context: Retrieving group sids using process info");
    status = EndvatUtil::GetProcessGroups(work.process, &buffer);
  }
  if (!buffer) {
    ZLOG_WARN("Context: Error in fetching group sids, err: %s", EndvatUtil::ErrorName(status));
    return;
  }
  if (status != ENDVAT_SUCCESS) {
    ZLOG_WARN("Context: Ignoring process group info failure %s, srcip:port %s:%d, destip:port: %s:%d, vm %s",
              EndvatUtil::ErrorName(status), info.src_ip.c_str(), info.src_port, info.dest_ip.c_str(),
              info.dest_port, info.vc_uuid.c_str());
    return;
  }
  Groups groups = GroupsOf(work.vm, buffer);
  info.group_count = groups.count;
  info.group_keys = std::move(groups.sids);  // a SID is its own key
  for (const uint32_t id : groups.ids) info.group_keys.push_back(DfwKey(work.vm, {}, id));
}

void ConnInfoBuilder::TakeUser(Work& work) const {
  ConnInfo& info = work.info;
  uint32_t status = ENDVAT_ERROR_GUEST_NOT_SUPPORTED;
  if (work.vm.os.os_type == kWindows || work.vm.os.os_type == kLinux) {
    // Without a key there is nobody to look up, and nothing to remember.
    if (info.user_dfw_key.empty()) return;
    info.user_hash = zem::jhash32(info.user_dfw_key);
    if (const auto user = users_.FindUser(info.user_hash, info.user_dfw_key)) {
      info.username = user->user_name;
      info.domainname = user->domain_name;
      return;
    }
    ZLOG_INFO("Context: Missed login for user %s, adding login info on user's first network event in cache",
              info.user_dfw_key.c_str());
    status = work.windows()
                 ? EndvatUtil::QuerySidInfo(work.handle, info.sid, &info.username, &info.domainname)
                 : EndvatUtil::QueryUidInfo(work.handle, static_cast<uint32_t>(info.uid), &info.username,
                                            &info.domainname);
    if (status == ENDVAT_SUCCESS) {
      auto user = std::make_shared<LRUCacheValue>();
      user->sid = info.user_dfw_key;
      user->user_name = info.username;
      user->domain_name = info.domainname;
      users_.PutUser(info.user_hash, std::move(user));
      info.missed_login = true;
      return;
    }
  }
  ZLOG_WARN("Context: Ignoring user info failure %s, srcip:port: %s:%d, destip:port: %s:%d, vm %s, user: %s",
            EndvatUtil::ErrorName(status), info.src_ip.c_str(), info.src_port, info.dest_ip.c_str(),
            info.dest_port, info.vc_uuid.c_str(), info.user_dfw_key.c_str());
}

void ConnInfoBuilder::TakeProcess(Work& work) const {
  ConnInfo& info = work.info;
  if (work.windows_system_process()) {
    info.process_name = work.process.pid == kIdleProcess ? "System Idle Process" : "System";
    return;
  }
  LibraryBuffer buffer;
  const uint32_t status = EndvatUtil::GetEventProcessInfo(work.handle, &buffer);
  if (status != ENDVAT_SUCCESS || !buffer) {
    ZLOG_WARN(
        "Context: Ignoring network event process info failure %s, srcip:port%s:%d, destip:port: %s:%d, vm %s",
        EndvatUtil::ErrorName(status), info.src_ip.c_str(), info.src_port, info.dest_ip.c_str(),
        info.dest_port, info.vc_uuid.c_str());
    throw EndvatApiError("GetNetworkEventProcessInfo", status, EndvatUtil::ErrorName(status));
  }
  const auto log = [&info](const char* format) {
    ZLOG_INFO(format, info.src_ip.c_str(), info.src_port, info.dest_ip.c_str(), info.dest_port,
              info.vc_uuid.c_str());
  };
  if (buffer.RawTextAt(0).empty()) {
    log("Context: Ignoring invalid process name buffer, srcip:port %s:%d, destip:port: %s:%d, vm %s");
  } else if (info.process_name = buffer.TextAt(0); info.process_name.empty()) {
    ZLOG_INFO("Context: Empty process name, srcip:port: %s:%d , destip:port: %s:%d, ", info.src_ip.c_str(),
              info.src_port, info.dest_ip.c_str(), info.dest_port);
  }
  if (buffer.RawTextAt(12).empty()) {
    log("Context: Ignoring invalid process cmdline buffer, srcip:port: %s:%d, destip:port: %s:%d, vm %s");
  } else {
    info.cmdline = buffer.TextAt(12);
  }
}

void ConnInfoBuilder::TakeProcessHash(Work& work) const {
  ConnInfo& info = work.info;
  if (!hash_.enable) return;
  if (work.windows_system_process()) {
    ZLOG_DEBUG("Context: not fetching process hash info for win system process");
    return;
  }
  LibraryBuffer buffer;
  uint32_t status;
  if (hash_.old_method) {
    ZLOG_DEBUG("Context: Using old way of querying process hash for %s", info.process_name.c_str());
    status = EndvatUtil::GetProcessHash(work.process, &buffer);
  } else {
    ZLOG_DEBUG("Context: Using new way of querying process hash for %s", info.process_name.c_str());
    status = EndvatUtil::GetEventProcessHash(work.handle, &buffer);
  }
  if (status != ENDVAT_SUCCESS || !buffer) {
    ZLOG_WARN(
        "Context: Ignoring network event process hash info failure %s,srcip:port %s:%d, destip:port: %s:%d, "
        "process: %s, vm %s",
        EndvatUtil::ErrorName(status), info.src_ip.c_str(), info.src_port, info.dest_ip.c_str(),
        info.dest_port, info.process_name.c_str(), info.vc_uuid.c_str());
    return;
  }
  const std::string_view raw = buffer.Bytes(2, buffer.Number<uint16_t>(0));
  info.process_dfw_key = zem::jhash64(raw, 0);
  if (!info.cmdline.empty()) info.process_dfw_key = zem::jhash64(info.cmdline, info.process_dfw_key);
  info.process_hash = Hexadecimal(raw);
  ZLOG_DEBUG("Context: Process SHA256 hash retrieved from network event is %s, vm %s",
             info.process_hash.c_str(), info.vc_uuid.c_str());
}

void Dump(const ConnInfo& info) {
  ZLOG_DEBUG(
      "Context: Conn dump - vcUuid: %s, ncVcUuid: %s: , osType: %s, srcIp: %s, srcPort: %d, destIp: %s, "
      "destPort: %d, protocol: %s, ip version: %s, timestamp: %lu, conn type: %s, process dfwKey: %lu, "
      "process hash: %s, process name: %s, cmdline: %s, pid: %lu, ctime: %lu, sid: %s, uid: %d, user dfwKey: "
      "%s, username: %s, domainname: %s, groupCount: %d, group hash: %lu, missedLogin: %s",
      info.vc_uuid.c_str(), info.nc_vc_uuid.c_str(), SystemName(info.os_type), info.src_ip.c_str(),
      info.src_port, info.dest_ip.c_str(), info.dest_port, ProtocolName(info.protocol),
      IpVersionName(info.ip_version), info.timestamp, ConnTypeName(info.conn_type), info.process_dfw_key,
      info.process_hash.c_str(), info.process_name.c_str(), info.cmdline.c_str(), info.pid, info.ctime,
      info.sid.c_str(), info.uid, info.user_dfw_key.c_str(), info.username.c_str(), info.domainname.c_str(),
      static_cast<int>(info.group_count), info.group_hash, info.missed_login ? "true" : "false");
}

}  // namespace Ctxt
