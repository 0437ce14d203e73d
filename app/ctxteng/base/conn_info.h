#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/ctxteng/base/user_session_info.h"

namespace Ctxt {

enum ConnType : uint32_t {
  CONN_TYPE_INVALID = 0,
  CONN_TYPE_PRE_CONNECT = 1,
  CONN_TYPE_CONNECT = 2,
  CONN_TYPE_DISCONNECT = 3,
  CONN_TYPE_LISTEN_START = 4,
  CONN_TYPE_LISTEN_STOP = 5,  // 6 as well
};

/// The name of a connection type, for log lines.
const char* ConnTypeName(uint32_t type);

inline constexpr uint32_t kProtocolUnknown = 65535;

/// One connection event of a guest with its user and process.  Built once, then shared and not changed.
struct ConnInfo {
  std::string vc_uuid;
  std::string nc_vc_uuid;
  uint32_t os_type = 0;  // kWindows, kLinux, 0 other
  std::string src_ip;
  int32_t src_port = -1;
  std::string dest_ip;
  int32_t dest_port = -1;
  uint32_t ip_version = kIpVersionUnknown;  // 0 IPv4, 1 IPv6
  uint32_t protocol = kProtocolUnknown;     // the IP protocol's number
  uint64_t timestamp = 0;                   // milliseconds since the epoch
  uint32_t conn_type = CONN_TYPE_INVALID;
  std::string process_hash;  // lower-case hexadecimal
  std::string process_name;
  std::string cmdline;
  uint64_t pid = 0;
  uint64_t ctime = 0;
  uint64_t process_dfw_key = 0;
  /// The user's key for the firewall: the SID, or "L-<guest>:<uid>".
  std::string user_dfw_key;
  uint32_t user_hash = 0;
  std::string sid;
  int32_t uid = -1;
  std::string username;
  std::string domainname;

  /// The session that the user came by, as far as it is known.
  struct Session {
    int32_t session_id = -1;
    std::string client_ip;
    uint32_t client_ip_version = kIpVersionUnknown;
    uint64_t timestamp = 0;
  } session;

  uint64_t group_hash = 0;
  uint32_t group_count = 0;
  std::vector<std::string> group_keys;
  /// The user's logon was not seen; this event has brought the name.
  bool missed_login = false;
};

}  // namespace Ctxt
