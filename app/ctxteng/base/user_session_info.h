#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Ctxt {

inline constexpr uint32_t kIpVersionUnknown = 65535;

enum SessionType : uint32_t {
  SESSION_TYPE_INVALID = 0,
  SESSION_TYPE_LOGON = 1,
  SESSION_TYPE_LOGOFF = 2,
  SESSION_TYPE_CONNECT = 3,
  SESSION_TYPE_DISCONNECT = 4,
  SESSION_TYPE_TTY_LOGIN = 5,
  SESSION_TYPE_TTY_LOGOUT = 6,
  SESSION_TYPE_PTS_LOGIN = 7,
  SESSION_TYPE_PTS_LOGOUT = 8,
};

/// The name of a session type, for log lines.
const char* SessionTypeName(uint32_t type);

/// One logon, logoff, connect or disconnect of a user in a guest.
struct UserSessionInfo {
  std::string vc_uuid;
  /// The user's key for the firewall: the SID, or "L-<guest>:<uid>".
  std::string dfw_key;
  uint32_t user_hash = 0;
  std::string sid;
  int32_t uid = -1;
  uint32_t session_type = SESSION_TYPE_INVALID;
  std::string user_name;
  std::string domain_name;
  int32_t session_id = -1;
  std::string client_ip;
  uint32_t client_ip_version = kIpVersionUnknown;
  uint64_t timestamp = 0;  // milliseconds since the epoch
  uint64_t group_hash = 0;
  uint32_t group_count = 0;
  std::vector<std::string> group_sids;  // Windows
  std::vector<uint32_t> group_ids;      // Linux
};

}  // namespace Ctxt
