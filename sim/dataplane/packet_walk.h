#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::sim {

/// What a packet passes on this host.
struct Hop {
  /// "port", "switch" or "uplink".
  std::string component;
  std::string name;
  /// A TraceflowAction.
  int action = 0;
};

/// The address that the switch has learnt for what is connected to a port.
std::string PortMac(std::string_view port);

/// An Ethernet frame with a UDP datagram from one port's address to another's, or to nobody's on this host.
std::string PacketBetween(std::string_view source_port, std::optional<std::string_view> destination_port);

/// The way of an Ethernet frame that enters by a port of the host's switches, as they are now: by the port
/// and the switch to the port with its destination address and the same logical switch, else out by the first
/// uplink.  A blocked port drops it, and so does a switch without an uplink.  Nothing when there is no such
/// port.
std::vector<Hop> WalkPacket(const std::string& source_port, std::string_view frame);

}  // namespace zem::sim
