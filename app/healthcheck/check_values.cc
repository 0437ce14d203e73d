#include "app/healthcheck/check_values.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace zem::Tarvik {
namespace {

constexpr size_t kPortIdSize = 48;
constexpr size_t kLongestAlias = 81;
constexpr size_t kNameBytes = 15;
constexpr size_t kIdBytes = 16;

template <class Number>
Number NumberAt(std::string_view value, size_t at) {
  Number number;
  std::memcpy(&number, value.data() + at, sizeof(number));
  return number;
}

}  // namespace

std::optional<VlanBitmap> MakeVlanBitmap(const std::vector<VlanRange>& ranges) {
  VlanBitmap bitmap{};
  for (const VlanRange& range : ranges) {
    if (range.first >= kVlanCount || range.last >= kVlanCount) return std::nullopt;
    for (uint32_t vlan = range.first; vlan <= range.last; ++vlan)
      bitmap[vlan / 8] = static_cast<uint8_t>(bitmap[vlan / 8] | 1u << vlan % 8);
  }
  return bitmap;
}

std::optional<std::vector<std::string>> ParseUplinkPorts(std::string_view value) {
  if (value.size() < sizeof(uint32_t)) return std::nullopt;
  const uint64_t count = NumberAt<uint32_t>(value, 0);
  if (value.size() != sizeof(uint32_t) + count * kPortIdSize) return std::nullopt;
  std::vector<std::string> ports;
  for (size_t at = sizeof(uint32_t); at < value.size(); at += kPortIdSize) {
    const std::string_view id = value.substr(at, kPortIdSize);
    ports.emplace_back(id.substr(0, id.find('\0')));
  }
  return ports;
}

std::optional<CheckResult> ParseCheckResult(std::string_view value) {
  constexpr size_t kHead = 2 * sizeof(uint16_t);
  constexpr size_t kRange = 2 * sizeof(uint16_t);
  if (value.size() < kHead) return std::nullopt;
  const size_t first = NumberAt<uint16_t>(value, 0);
  const size_t second = NumberAt<uint16_t>(value, sizeof(uint16_t));
  if (value.size() != kHead + (first + second) * kRange) return std::nullopt;
  CheckResult result;
  for (size_t i = 0; i < first + second; ++i) {
    const size_t at = kHead + i * kRange;
    auto& group = i < first ? result.first : result.second;
    group.push_back({NumberAt<uint16_t>(value, at), NumberAt<uint16_t>(value, at + sizeof(uint16_t))});
  }
  return result;
}

std::string ParseAlias(std::string_view value) {
  return std::string(value.substr(0, std::min(value.find('\0'), kLongestAlias)));
}

std::string SwitchIdOfName(std::string_view name) {
  std::string id;
  for (size_t i = 0; i < kIdBytes; ++i) {
    const auto byte = i < std::min(name.size(), kNameBytes) ? static_cast<uint8_t>(name[i]) : uint8_t{0};
    char digits[sizeof("-ff")];
    std::snprintf(digits, sizeof(digits), "%s%02x", i == 0 ? "" : i == kIdBytes / 2 ? "-" : " ", byte);
    id += digits;
  }
  return id;
}

}  // namespace zem::Tarvik
