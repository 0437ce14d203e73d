#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace Ctxt {

/// One logon or logoff on its way to the manager.
struct LoginLogoffInfo {
  uint32_t sessionId = 0;
  /// Stays empty: the manager knows users by name and domain.
  std::string sid;
  std::string domainName;
  std::string userName;
  /// 0 IPv4, 1 IPv6, 65535 not set.
  uint32_t clientIpType = 65535;
  /// Ends at the first zero byte, or with the array.
  std::array<char, 40> clientIp{};
  uint64_t timestamp = 0;  // milliseconds since the epoch
  /// 0 login, 1 logoff, 2 connect, 3 disconnect; the others have no name.
  uint32_t eventType = 0;
  std::string vcUuid;
  std::string biosUuid;

  std::string_view ClientIpText() const {
    return {clientIp.data(),
            static_cast<size_t>(std::find(clientIp.begin(), clientIp.end(), '\0') - clientIp.begin())};
  }
};

}  // namespace Ctxt
