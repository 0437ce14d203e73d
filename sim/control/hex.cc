#include "sim/control/hex.h"

#include <charconv>

namespace zem::sim {

std::string ToHex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    text += kDigits[static_cast<unsigned char>(c) >> 4];
    text += kDigits[static_cast<unsigned char>(c) & 15];
  }
  return text;
}

std::optional<std::string> FromHex(std::string_view digits) {
  if (digits.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(digits.data() + i, digits.data() + i + 2, value, 16);
    if (error != std::errc() || end != digits.data() + i + 2) return std::nullopt;
    bytes += static_cast<char>(value);
  }
  return bytes;
}

}  // namespace zem::sim
