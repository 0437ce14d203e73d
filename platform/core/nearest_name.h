#pragma once

#include <span>
#include <string_view>

namespace zem {

/// The name that was probably meant by `word`: the one that the fewest edits lead to (a letter more, less or
/// other, or two neighbours exchanged), if these are few for its length.  Empty when no name is near.
std::string_view NearestName(std::string_view word, std::span<const std::string_view> names);

}  // namespace zem
