#pragma once

#include <charconv>
#include <optional>
#include <string_view>

namespace zem::sim {

/// The number that `text` is as a whole; nothing when it is another text, or too large for T.
template <class T>
std::optional<T> NumberOf(std::string_view text) {
  T number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace zem::sim
