#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zem::ctl {

enum class Colour { kNone, kGood, kWarning, kBad, kFaint };

/// What people read: lines and tables on the standard output.  Names in answers come from the manager and
/// from guests, so whatever could steer a terminal is replaced.
class Screen {
 public:
  explicit Screen(bool colours) : colours_(colours) {}

  /// Colours for a terminal whose user has not refused them (NO_COLOR).
  static bool WantsColours();

  void Line(std::string_view text, Colour colour = Colour::kNone);

  struct Cell {
    std::string text;
    Colour colour = Colour::kNone;
    bool right = false;  ///< numbers stand at the right of their column
  };
  using Row = std::vector<Cell>;
  /// Columns as wide as their widest cell; the rows have as many cells as there are headings.
  void Table(const std::vector<std::string>& headings, const std::vector<Row>& rows);

 private:
  std::string Painted(std::string_view text, Colour colour) const;

  const bool colours_;
};

/// `text` without control characters.
std::string Printable(std::string_view text);
/// "3 s", "12 min", "5 h", "8 d".
std::string Age(double seconds);

}  // namespace zem::ctl
