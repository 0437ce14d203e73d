#pragma once

#include <charconv>
#include <optional>
#include <string_view>

namespace zem::sim {

/// Parses all of `text` as a number; returns nothing when it is not one or does not fit into T.
template <class T>
std::optional<T> NumberOf(std::string_view text) {
  T number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace zem::sim
