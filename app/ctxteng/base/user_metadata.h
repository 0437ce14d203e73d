#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Ctxt {

/// What the caches keep of one user.
struct LRUCacheValue {
  uint32_t session_id = 0;
  /// The user's key for the firewall.
  std::string sid;
  std::string user_name;
  std::string domain_name;
  std::vector<std::string> group_sids;  // Windows
  std::vector<uint32_t> group_ids;      // Linux
  bool valid = true;
};

}  // namespace Ctxt
