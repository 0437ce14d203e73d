#include "app/zemda/hosttables/column_table.h"

#include <charconv>

#include "platform/core/text_repair.h"

namespace ZemDa {
namespace {

std::string_view Trim(std::string_view text) {
  constexpr const char* kBlanks = " \t\r\n\v\f";
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

}  // namespace

bool ColumnTable::ReadHeader(std::string_view header, std::span<const char* const> columns,
                             std::string* missing) {
  positions_.clear();
  size_t from = 0;
  for (const char* const column : columns) {
    const size_t at = header.find(column, from);
    if (at == std::string_view::npos) {
      *missing = column;
      return false;
    }
    positions_.push_back(at);
    from = at + std::string_view(column).size();
  }
  return true;
}

std::string ColumnTable::Cell(std::string_view line, size_t column) const {
  if (column + 1 >= positions_.size() || positions_[column] >= line.size()) return {};
  // The positions are bytes, so a cut may fall into a character.
  return zem::RepairText(
      std::string(Trim(line.substr(positions_[column], positions_[column + 1] - positions_[column]))));
}

std::vector<std::string_view> LinesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    lines.push_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return lines;
}

int32_t NumberOf(const std::string& text) {
  int32_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

}  // namespace ZemDa
