#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zem::sim {

/// Two lower-case digits per byte.
std::string ToHex(std::string_view bytes);

/// Nothing when the text is not pairs of hexadecimal digits.
std::optional<std::string> FromHex(std::string_view digits);

}  // namespace zem::sim
