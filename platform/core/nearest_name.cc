#include "platform/core/nearest_name.h"

#include <algorithm>
#include <vector>

namespace zem {
namespace {

// Words of another size are not mistyped names, and the table below stays small.
constexpr size_t kLongestWord = 128;
// One edit for each so many letters.
constexpr size_t kLettersPerEdit = 3;

size_t Edits(std::string_view from, std::string_view to) {
  std::vector<std::vector<size_t>> edits(from.size() + 1, std::vector<size_t>(to.size() + 1));
  for (size_t i = 0; i <= from.size(); ++i) {
    for (size_t j = 0; j <= to.size(); ++j) {
      if (i == 0 || j == 0) {
        edits[i][j] = i + j;
        continue;
      }
      const size_t other = from[i - 1] == to[j - 1] ? 0 : 1;
      edits[i][j] = std::min({edits[i - 1][j] + 1, edits[i][j - 1] + 1, edits[i - 1][j - 1] + other});
      if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
        edits[i][j] = std::min(edits[i][j], edits[i - 2][j - 2] + 1);
      }
    }
  }
  return edits[from.size()][to.size()];
}

}  // namespace

std::string_view NearestName(std::string_view word, std::span<const std::string_view> names) {
  std::string_view nearest;
  if (word.size() > kLongestWord) return nearest;
  size_t fewest = std::max<size_t>(1, word.size() / kLettersPerEdit) + 1;
  for (const std::string_view name : names) {
    if (name.size() > kLongestWord) continue;
    const size_t edits = Edits(word, name);
    if (edits < fewest) {
      fewest = edits;
      nearest = name;
    }
  }
  return nearest;
}

}  // namespace zem
