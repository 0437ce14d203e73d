#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ZemDa {

/// A table of text whose cells stand below their columns' names.  A cell goes from its column's position to
/// that of the next column, in bytes.
class ColumnTable {
 public:
  /// Finds the columns in the header, one behind the other.  False, with the name in `*missing`, when one is
  /// not there.
  [[nodiscard]] bool ReadHeader(std::string_view header, std::span<const char* const> columns,
                                std::string* missing);

  /// The cell, without the blanks around it; empty beyond the line's end.  The last column has no cell.
  std::string Cell(std::string_view line, size_t column) const;

 private:
  std::vector<size_t> positions_;
};

/// The lines of a text; without an empty last one.
std::vector<std::string_view> LinesOf(std::string_view text);
/// 0 for a text that does not begin with a number.
int32_t NumberOf(const std::string& text);

}  // namespace ZemDa
