#include "app/ctxteng/flow/ip_address.h"

#include <arpa/inet.h>

#include <boost/asio/ip/address.hpp>
#include <cerrno>

#include "framework/log/log.h"
#include "proto/context/pace.pb.h"

namespace Ctxt::PaceClient {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

}  // namespace

bool FillIpAddress(const std::string& text, orlane::zem::pace::IpAddressMsg* address) {
  if (text.empty()) {
    ZLOG_CTX_ERROR(608, "Zemi: Ignoring zero length Ip address");
    return false;
  }
  boost::system::error_code error;
  const boost::asio::ip::address parsed = boost::asio::ip::make_address(text, error);
  if (error) {
    ZLOG_CTX_ERROR(610, "Zemi: boost ip from str failed: %s, error %s", text.c_str(),
                   error.message().c_str());
    return false;
  }
  // A zone, which only the host itself understands, is no part of the address.
  const std::string plain = text.substr(0, text.find('%'));
  if (parsed.is_v4()) {
    in_addr v4{};
    if (::inet_pton(AF_INET, plain.c_str(), &v4) == 1) {
      address->set_ipv4(v4.s_addr);
      return true;
    }
    ZLOG_CTX_ERROR(609, "Zemi: inet_pton failure for ipv4 %s, error: %d", text.c_str(), errno);
    return false;
  }
  in6_addr v6{};
  if (::inet_pton(AF_INET6, plain.c_str(), &v6) == 1) {
    address->set_ipv6(&v6, sizeof(v6));
    return true;
  }
  ZLOG_CTX_ERROR(609, "Zemi: inet_pton failure for ipv6 %s, error: %d", text.c_str(), errno);
  return false;
}

}  // namespace Ctxt::PaceClient
