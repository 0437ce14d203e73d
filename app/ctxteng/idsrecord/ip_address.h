#pragma once

#include <string>

namespace orlane::zem {
class IpAddressMsg;
}

namespace IdsEvtEng {

/// Writes the address; a text that is none becomes the IPv4 address 0, after a log line.
void EncodeAddress(const std::string& text, orlane::zem::IpAddressMsg* address);

}  // namespace IdsEvtEng
