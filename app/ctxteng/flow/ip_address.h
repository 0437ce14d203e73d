#pragma once

#include <string>

namespace orlane::zem::pace {
class IpAddressMsg;
}

namespace Ctxt::PaceClient {

/// Sets the address that `text` is, in network order.  False, after a log line, when it is none; `address` is
/// then unchanged.
bool FillIpAddress(const std::string& text, orlane::zem::pace::IpAddressMsg* address);

}  // namespace Ctxt::PaceClient
