#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::Tarvik {

/// The binary values of the switch properties by which VLANs and MTU are tested, and the switch id that is
/// made of a name.  What comes from the switch is checked to its last byte.

inline constexpr uint32_t kVlanCount = 4096;

struct VlanRange {
  uint32_t first = 0;
  uint32_t last = 0;
  bool operator==(const VlanRange&) const = default;
};

using VlanBitmap = std::array<uint8_t, kVlanCount / 8>;

/// The VLANs of all ranges; a range that ends before it begins is empty.  Nothing when one reaches beyond
/// 4095.
std::optional<VlanBitmap> MakeVlanBitmap(const std::vector<VlanRange>& ranges);

/// The port ids in a list of uplinks.  Nothing when the length is not that of the stated count.
std::optional<std::vector<std::string>> ParseUplinkPorts(std::string_view value);

/// A port's result: two groups of ranges.
struct CheckResult {
  std::vector<VlanRange> first;
  std::vector<VlanRange> second;
};
/// Nothing when the length is not that of the stated counts.
std::optional<CheckResult> ParseCheckResult(std::string_view value);

/// A port's alias: up to its zero, 81 bytes at most.
std::string ParseAlias(std::string_view value);

/// The id of a switch that the library does not know: the first 15 bytes of its name as hexadecimal digits.
std::string SwitchIdOfName(std::string_view name);

}  // namespace zem::Tarvik
