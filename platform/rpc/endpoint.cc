#include "platform/rpc/endpoint.h"

#include <boost/asio/ip/address.hpp>
#include <charconv>
#include <string_view>

namespace zem::net {
namespace {

constexpr std::string_view kTcpPrefix = "tcp://";
constexpr std::string_view kIdPrefix = "zem://";

}  // namespace

Endpoint::Endpoint(std::string text) : text_(std::move(text)) {
  const std::string_view view(text_);
  if (view.substr(0, kIdPrefix.size()) == kIdPrefix) {
    address_ = view.substr(kIdPrefix.size());
    if (!address_.empty()) kind_ = Kind::kId;
    return;
  }
  if (view.substr(0, kTcpPrefix.size()) != kTcpPrefix) return;
  const std::string_view rest = view.substr(kTcpPrefix.size());
  const size_t colon = rest.rfind(':');
  if (colon == std::string_view::npos) return;
  std::string_view address = rest.substr(0, colon);
  if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
    address = address.substr(1, address.size() - 2);
  }
  const std::string_view port = rest.substr(colon + 1);
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), port_);
  boost::system::error_code not_literal;
  boost::asio::ip::make_address(std::string(address), not_literal);
  if (error != std::errc() || end != port.data() + port.size() || not_literal) {
    port_ = 0;
    return;
  }
  address_ = address;
  kind_ = Kind::kTcp;
}

}  // namespace zem::net
