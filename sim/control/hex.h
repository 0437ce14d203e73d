#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zem::sim {

/// Writes two lower-case digits per byte.
std::string ToHex(std::string_view bytes);

/// Returns nothing when the text does not consist of pairs of hexadecimal digits.
std::optional<std::string> FromHex(std::string_view digits);

}  // namespace zem::sim
