#pragma once

#include <string_view>

namespace zem::zema {

/// Whether an endpoint already has an assigned address: not when it is empty, all zero, or an address that
/// the host gave itself because no DHCP server answered.
inline bool IsAssignedIpv4(std::string_view address) {
  return !address.empty() && address != "0.0.0.0" && !address.starts_with("169.254.");
}
inline bool IsAssignedIpv6(std::string_view address) { return !address.empty() && address != "::"; }

}  // namespace zem::zema
