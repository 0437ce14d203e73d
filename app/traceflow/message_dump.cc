#include "app/traceflow/message_dump.h"

#include <arpa/inet.h>
#include <google/protobuf/text_format.h>

#include <cstdio>
#include <cstring>

#include "proto/base/ip_address.pb.h"
#include "proto/base/mac_address.pb.h"

namespace zem::Tarvik {
namespace {

using google::protobuf::Message;
using google::protobuf::TextFormat;
using orlane::zem::IpAddressMsg;
using orlane::zem::MacAddressMsg;

constexpr size_t kIpv6Size = 16;

std::string MacText(const Message& message) {
  const uint64_t address = static_cast<const MacAddressMsg&>(message).address();
  const auto byte = [address](int index) {
    return static_cast<unsigned>(address >> (40 - 8 * index) & 0xff);
  };
  char text[sizeof("00:00:00:00:00:00")];
  std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", byte(0), byte(1), byte(2), byte(3),
                byte(4), byte(5));
  return text;
}

std::string IpText(const Message& message) {
  const auto& address = static_cast<const IpAddressMsg&>(message);
  char text[INET6_ADDRSTRLEN] = "";
  if (address.has_ipv4()) {
    const in_addr ipv4{htonl(address.ipv4())};
    ::inet_ntop(AF_INET, &ipv4, text, sizeof(text));
  } else if (address.ipv6().size() == kIpv6Size) {
    ::inet_ntop(AF_INET6, address.ipv6().data(), text, sizeof(text));
  }
  return text;
}

class AddressPrinter final : public TextFormat::MessagePrinter {
 public:
  explicit AddressPrinter(std::string (*text)(const Message&)) : text_(text) {}
  void Print(const Message& message, bool, TextFormat::BaseTextGenerator* generator) const override {
    generator->PrintString(text_(message) + " ");
  }

 private:
  std::string (*const text_)(const Message&);
};

TextFormat::Printer MakePrinter() {
  TextFormat::Printer printer;
  printer.SetSingleLineMode(true);
  // The printer owns what it registers.
  auto mac = std::make_unique<AddressPrinter>(&MacText);
  if (printer.RegisterMessagePrinter(MacAddressMsg::descriptor(), mac.get()))
    static_cast<void>(mac.release());
  auto ip = std::make_unique<AddressPrinter>(&IpText);
  if (printer.RegisterMessagePrinter(IpAddressMsg::descriptor(), ip.get())) static_cast<void>(ip.release());
  return printer;
}

}  // namespace

std::string DumpWithAddresses(const Message& message) {
  static const TextFormat::Printer printer = MakePrinter();
  std::string text;
  printer.PrintToString(message, &text);
  return text;
}

}  // namespace zem::Tarvik
