#include "app/ctxteng/idsrecord/ip_address.h"

#include <arpa/inet.h>

#include "app/ctxteng/idsrecord/line_budget.h"
#include "framework/log/log.h"
#include "proto/base/ip_address.pb.h"

namespace IdsEvtEng {
namespace {

constexpr zem::LogSource kLog{"tarvik", "idsevt"};
constexpr uint32_t kLinesOfAKind = 10;
LineBudget g_wrong_addresses{kLinesOfAKind};

}  // namespace

void EncodeAddress(const std::string& text, orlane::zem::IpAddressMsg* address) {
  in_addr v4{};
  if (::inet_pton(AF_INET, text.c_str(), &v4) == 1) {
    address->set_ipv4(ntohl(v4.s_addr));
    return;
  }
  in6_addr v6{};
  if (::inet_pton(AF_INET6, text.c_str(), &v6) == 1) {
    address->set_ipv6(&v6, sizeof(v6));
    return;
  }
  address->set_ipv4(0);
  if (!g_wrong_addresses.Allows()) return;
  if (text.empty()) {
    ZLOG_CTX_ERROR(729, "IP address for encoding is of length 0");
  } else {
    ZLOG_CTX_ERROR(610, "Failure to convert ipv4 %s address from string", text.c_str());
  }
}

}  // namespace IdsEvtEng
