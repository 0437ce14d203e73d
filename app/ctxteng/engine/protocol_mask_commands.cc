#include "app/ctxteng/engine/protocol_mask_commands.h"

#include <array>
#include <string>

#include "app/ctxteng/guest/guest_table.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

struct Protocol {
  const char* word;
  const char* name;
  uint64_t bit;
};
constexpr std::array kProtocols = {Protocol{"tcp", "TCP", 0x200}, Protocol{"udp", "UDP", 0x400},
                                   Protocol{"icmp", "ICMP", 0x800}};

std::string TextOf(uint64_t mask) {
  std::string text;
  for (const Protocol& protocol : kProtocols) {
    if (!text.empty()) text += ' ';
    text += std::string(protocol.name) + ((mask & protocol.bit) != 0 ? ":on" : ":off");
  }
  return text;
}

void Set(GuestTable& guests, const zem::Tarvik::CliArguments& arguments, zem::Tarvik::CliReply reply) {
  const uint64_t current = guests.GetProtocolMask();
  uint64_t mask = current;
  for (const Protocol& protocol : kProtocols) {
    if (arguments[0] != protocol.word) continue;
    if (arguments[1] == "on") mask |= protocol.bit;
    if (arguments[1] == "off") mask &= ~protocol.bit;
  }
  if (mask == current) return reply.Ok("CliServer: Current and new protocol masks are the same");
  ZLOG_INFO("CliServer: Setting protocol mask to %lu", mask);
  guests.SetProtocolMask(mask);
  reply.Ok("CliServer: Successfully set protocol mask to " + TextOf(mask));
}

}  // namespace

std::vector<zem::Tarvik::CliCommand> ProtocolMaskCommands(GuestTable& guests) {
  return {{"get/protocolMask", "", 0, 0,
           [&guests](const zem::Tarvik::CliArguments&, zem::Tarvik::CliReply reply) {
             const uint64_t mask = guests.GetProtocolMask();
             ZLOG_INFO("CliServer: Current protocol mask is %lu", mask);
             reply.Ok("Current protocol mask is: " + TextOf(mask));
           }},
          {"set/protocolMask", "<protocol> <enable>", 2, 2,
           [&guests](const zem::Tarvik::CliArguments& arguments, zem::Tarvik::CliReply reply) {
             Set(guests, arguments, std::move(reply));
           }}};
}

}  // namespace Ctxt
