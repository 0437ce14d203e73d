#include "covedbclient/codec/address_codec.h"

#include <arpa/inet.h>

#include <array>
#include <boost/asio/ip/address.hpp>

#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "proto/base/base.pb.h"
#include "proto/covedb/address.pb.h"

namespace zem {
namespace {

using orlane::zem::covedb::IpAddressMsg;
using orlane::zem::covedb::IpAddressWithPrefixMsg;
using orlane::zem::covedb::IpSubnetAddressMsg;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr size_t kIpv6Bytes = 16;

int EncodeIpv4(const std::string& text, IpAddressMsg* out) {
  in_addr address{};
  if (const int result = ::inet_pton(AF_INET, text.c_str(), &address); result != 1) {
    ZLOG_ERROR("44094", "Error converting IP address string to ipv4: source srting: %s return error: %d",
               text.c_str(), result);
    return -1;
  }
  out->set_ipv4(ntohl(address.s_addr));
  return 0;
}

int EncodeIpv6(const std::string& text, IpAddressMsg* out) {
  std::array<char, kIpv6Bytes> address;
  if (const int result = ::inet_pton(AF_INET6, text.c_str(), address.data()); result != 1) {
    ZLOG_ERROR("44094", "Error converting IP address string to ipv6: source srting: %s return error: %d",
               text.c_str(), result);
    return -1;
  }
  out->set_ipv6(address.data(), address.size());
  return 0;
}

// The text; the number of a log line's variant in `is_ipv6`.  -1 for bytes that are no address.
int Decode(const IpAddressMsg& message, std::string* out, bool* is_ipv6) {
  out->clear();
  *is_ipv6 = false;
  char text[INET6_ADDRSTRLEN];
  if (message.has_ipv4()) {
    const in_addr address{htonl(message.ipv4())};
    *out = ::inet_ntop(AF_INET, &address, text, sizeof(text));
    return 0;
  }
  if (!message.has_ipv6()) return 0;
  *is_ipv6 = true;
  if (message.ipv6().size() != kIpv6Bytes) {
    ZLOG_ERROR("44094", "[%s] an IPv6 address has %lu bytes instead of 16", "DecodeIpAddressMsg",
               static_cast<unsigned long>(message.ipv6().size()));
    return -1;
  }
  *out = ::inet_ntop(AF_INET6, message.ipv6().data(), text, sizeof(text));
  return 0;
}

}  // namespace

int EncodeIpAddressMsg(const std::string& text, IpAddressMsg* out) {
  if (text.empty()) return 0;
  try {
    const auto address = boost::asio::ip::make_address(text);
    if (address.is_v4()) return EncodeIpv4(text, out);
    if (address.is_v6()) return EncodeIpv6(text, out);
    ZLOG_ERROR("44094", "Obtained an input which is neither ipv4 or ipv6: %s", text.c_str());
  } catch (const std::exception& e) {
    ZLOG_ERROR("41512", "In [%s] Error: %s\n", __func__, (std::string("Exception: ") + e.what()).c_str());
  }
  return -1;
}

int EncodeIpAddressWithPrefixMsg(const std::string& text, unsigned prefix, IpAddressWithPrefixMsg* out) {
  out->set_prefix_length(prefix);
  if (text.empty()) return 0;
  IpAddressMsg address;
  if (EncodeIpAddressMsg(text, &address) != 0) return -1;
  *out->mutable_address() = std::move(address);
  return 0;
}

int EncodeIpSubnetAddressMsg(const std::string& text, IpSubnetAddressMsg* out) {
  if (text.empty()) return 0;
  try {
    if (boost::asio::ip::make_address(text).is_v4()) return EncodeIpv4(text, out->mutable_address());
    ZLOG_ERROR("44094", "Obtained an input which is not an ipv4 subnet: %s", text.c_str());
  } catch (const std::exception& e) {
    ZLOG_ERROR("41512", "In [%s] Error: %s\n", __func__, (std::string("Exception: ") + e.what()).c_str());
  }
  return -1;
}

int DecodeIpAddressMsg(const IpAddressMsg& message, std::string* out) {
  bool is_ipv6 = false;
  if (Decode(message, out, &is_ipv6) != 0) return -1;
  if (out->empty()) return 0;
  ZLOG_DEBUG(
      is_ipv6 ? "[%s] Processed IpAddressMsg IPv6 string: %s" : "[%s] Processed IpAddressMsg IP string: %s",
      __func__, out->c_str());
  return 0;
}

int DecodeIpAddressWithPrefixMsg(const IpAddressWithPrefixMsg& message, std::string* out, unsigned* prefix) {
  *prefix = message.prefix_length();
  bool is_ipv6 = false;
  if (Decode(message.address(), out, &is_ipv6) != 0) return -1;
  if (out->empty()) return 0;
  ZLOG_DEBUG(is_ipv6 ? "[%s] Processed IpAddressWithPrefixMsg IPv6 string: %s"
                     : "[%s] Processed IpAddressWithPrefixMsg IPv4 string: %s",
             __func__, out->c_str());
  return 0;
}

int DecodeIpSubnetAddressMsg(const IpSubnetAddressMsg& message, std::string* out) {
  bool is_ipv6 = false;
  if (Decode(message.address(), out, &is_ipv6) != 0) return -1;
  if (!out->empty()) ZLOG_DEBUG("[%s] Processed IpSubnetAddressMsg IP string: %s", __func__, out->c_str());
  return 0;
}

std::string UUID_ToString(const orlane::zem::UuidMsg& uuid) { return UuidText(uuid); }

bool UUID_FromString(const std::string& text, orlane::zem::UuidMsg* out) {
  const auto uuid = ParseUuid(text);
  if (uuid) SetUuid(*uuid, out);
  return uuid.has_value();
}

}  // namespace zem
