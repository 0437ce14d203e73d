#pragma once

#include <string_view>

namespace zem::zema {

/// Whether an endpoint has this address already: not while it is empty, all zero, or one that the host gave
/// itself because nobody answered.
inline bool IsAssignedIpv4(std::string_view address) {
  return !address.empty() && address != "0.0.0.0" && !address.starts_with("169.254.");
}
inline bool IsAssignedIpv6(std::string_view address) { return !address.empty() && address != "::"; }

}  // namespace zem::zema
