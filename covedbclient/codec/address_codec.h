#pragma once

#include <string>

namespace orlane::zem {
class UuidMsg;
namespace covedb {
class IpAddressMsg;
class IpAddressWithPrefixMsg;
class IpSubnetAddressMsg;
}  // namespace covedb
}  // namespace orlane::zem

/// Texts of the manager's messages and the binary forms of the store's.  A value that cannot be converted is
/// logged and leaves the output unset.
namespace zem {

/// An empty text sets nothing and is fine.  0, or -1.
int EncodeIpAddressMsg(const std::string& text, orlane::zem::covedb::IpAddressMsg* out);
/// The prefix length is set whatever becomes of the address.
int EncodeIpAddressWithPrefixMsg(const std::string& text, unsigned prefix,
                                 orlane::zem::covedb::IpAddressWithPrefixMsg* out);
/// IPv4 only.
int EncodeIpSubnetAddressMsg(const std::string& text, orlane::zem::covedb::IpSubnetAddressMsg* out);

/// Without an address the text is empty.  0, or -1 for an IPv6 address that has not 16 bytes.
int DecodeIpAddressMsg(const orlane::zem::covedb::IpAddressMsg& message, std::string* out);
int DecodeIpAddressWithPrefixMsg(const orlane::zem::covedb::IpAddressWithPrefixMsg& message, std::string* out,
                                 unsigned* prefix);
int DecodeIpSubnetAddressMsg(const orlane::zem::covedb::IpSubnetAddressMsg& message, std::string* out);

/// The text of 36 characters.
std::string UUID_ToString(const orlane::zem::UuidMsg& uuid);
/// False, with `out` as it was, when the text is no uuid.
[[nodiscard]] bool UUID_FromString(const std::string& text, orlane::zem::UuidMsg* out);

}  // namespace zem
