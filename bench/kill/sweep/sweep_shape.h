#pragma once

#include <string>

namespace zem::bench {

inline constexpr const char* kConfigId = "c0000000-0000-4000-8000-000000000001";
// The network of the management interface, and its place in it.
inline constexpr const char* kNetwork = "b0000000-0000-4000-8000-0000000000b1";
inline constexpr const char* kVif = "d0000000-0000-4000-8000-0000000000d1";
inline constexpr const char* kLogicalPort = "e0000000-0000-4000-8000-0000000000e1";

/// The contents of a host configuration of the sweep.
struct Shape {
  enum class Interface { kStays, kIn, kOut };

  int mtu = 1600;
  int endpoints = 1;
  bool two_uplinks = false;
  bool third_switch = false;
  bool second_router = false;
  /// Settings that are applied only while the host is in maintenance mode.
  bool performance = false;
  /// The destination of the management interface.
  Interface interface = Interface::kStays;

  bool operator==(const Shape&) const = default;
};

/// The text of the configuration's message.
std::string ConfigText(const Shape& shape, int revision);

}  // namespace zem::bench
