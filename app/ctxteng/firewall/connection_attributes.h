#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "platform/firewall/firewall.h"

namespace Ctxt {

class IFwLib;

/// What the firewall is told about a connection of a guest, or about a user of it.
struct DfwUserProcessInfo {
  uint32_t ip_version = 0;  // 0 IPv4, 1 IPv6
  uint32_t protocol = 0;
  std::string user_dfw_key;
  std::string src_ip;
  std::string dest_ip;
  uint32_t src_port = 0;
  uint32_t dest_port = 0;
  std::string nc_vc_uuid;
  std::vector<std::string> group_keys;
  uint64_t process_dfw_key = 0;
  uint32_t user_hash = 0;
};

namespace DfwUtil {

inline constexpr const char* kAgent = "orlane-sfw";

/// Attaches user, and process if wanted, to the connection on each of `vnics`, in ascending order, until one
/// fails.  Returns FW_OK or the status of the failure.
FW_Status SetConnection(IFwLib& library, FW_Handle handle, const DfwUserProcessInfo& info,
                        const std::set<uint32_t>& vnics, bool with_process);

/// Tells the firewall the groups of the user.
FW_Status SetMembership(IFwLib& library, FW_Handle handle, const DfwUserProcessInfo& info, uint32_t vnic);

}  // namespace DfwUtil
}  // namespace Ctxt
