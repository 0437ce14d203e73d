#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "app/ctxteng/base/conn_info.h"
#include "app/ctxteng/base/vm_data.h"

namespace Ctxt::PaceClient {

enum VmEventType : uint32_t { POWER_ON = 1, POWER_OFF = 2, GI_INFO = 3 };
enum ServiceEventType : uint32_t { LISTEN_START = 1, LISTEN_STOP = 2 };
enum UserEventType : uint32_t { USER_LOGON = 1, USER_LOGOFF = 2, USER_CONNECT = 3, USER_DISCONNECT = 4 };

/// What a guest was when it came, went, or changed what it runs for introspection.
struct VmEvent {
  std::string vc_uuid;
  std::string bios_uuid;
  std::string gcf_path;
  OsInfo os;
  GiInfo gi;
  /// `gi` is what the guest has said.
  bool gi_known = false;
  uint64_t timestamp = 0;  // milliseconds since the epoch
  uint32_t event_type = POWER_ON;
};

struct ServiceEvent {
  uint32_t type = LISTEN_START;
  /// The key in the guest's table of processes, which keeps it.
  const std::string* process_map_key = nullptr;
  /// The connection event with address, port and time.
  std::shared_ptr<const ConnInfo> connection;
};

struct UserEvent {
  uint32_t type = USER_LOGON;
  std::shared_ptr<const UserSessionInfo> session;
};

struct ProcessInfo {
  /// The last ones that were seen; the rest is what the process was seen with first.
  uint64_t pid = 0;
  uint64_t ctime = 0;
  std::shared_ptr<const ConnInfo> first;
};

struct UserInfo {
  std::string sid;
  int32_t uid = -1;
  std::string user_name;
  std::string domain_name;
  uint32_t group_count = 0;
  uint64_t group_hash = 0;
};

/// What one guest did in the current interval.
struct VmInfo {
  std::vector<std::shared_ptr<const VmEvent>> vm_events;
  std::vector<ServiceEvent> service_events;
  std::vector<UserEvent> user_events;
  std::unordered_map<std::string, ProcessInfo> processes;  // by process key
  std::unordered_map<std::string, UserInfo> users;         // by firewall key
};

/// The key of a process: its key for the firewall and its user.
std::string ProcessKey(const ConnInfo& connection);

using VmMap = std::unordered_map<std::string, VmInfo>;  // by the guest's key

}  // namespace Ctxt::PaceClient
