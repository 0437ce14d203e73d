#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zem::sim::capture {

/// A packet of UDP over IPv4 that a guest may send.  Each bears a number, by which it is known again.
struct Frame {
  std::string source = "10.0.0.1";
  std::string destination = "10.0.0.9";
  uint16_t port = 5000;
  /// 0 is none.
  uint16_t vlan = 0;
  /// Bytes from the Ethernet header on; at least what the number takes.
  size_t size = 100;
};

/// The bytes on the wire.  Throws std::runtime_error for an address that is none.
std::string FrameBytes(const Frame& frame, uint64_t number);

/// The number in a packet's payload; nothing in one that is not of `FrameBytes`.
std::optional<uint64_t> NumberIn(std::string_view bytes);

}  // namespace zem::sim::capture
