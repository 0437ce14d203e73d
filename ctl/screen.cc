#include "ctl/screen.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace zem::ctl {
namespace {

constexpr unsigned char kFirstPrintable = 0x20;
constexpr unsigned char kDelete = 0x7f;
// In UTF-8: the bytes 0x80 to 0x9f behind 0xc2 are the terminal's other set of control characters.
constexpr unsigned char kControlLead = 0xc2;
constexpr unsigned char kContinuationFirst = 0x80;
constexpr unsigned char kContinuationMask = 0xc0;
constexpr unsigned char kControlEnd = 0xa0;

struct ColourCode {
  Colour colour;
  const char* code;
};
constexpr std::array kCodes = {ColourCode{Colour::kGood, "\033[32m"},
                               ColourCode{Colour::kWarning, "\033[33m"}, ColourCode{Colour::kBad, "\033[31m"},
                               ColourCode{Colour::kFaint, "\033[2m"}};

// Characters, not bytes.
size_t Width(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & kContinuationMask) != kContinuationFirst;
  }));
}

struct AgeUnit {
  double seconds;
  const char* name;
};
constexpr std::array kUnits = {AgeUnit{172'800, "d"}, AgeUnit{7'200, "h"}, AgeUnit{120, "min"}};
constexpr std::array kUnitLengths = {86'400.0, 3'600.0, 60.0};

}  // namespace

bool Screen::WantsColours() {
  const char* const refused = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  return ::isatty(STDOUT_FILENO) != 0 && (refused == nullptr || *refused == '\0') && terminal != nullptr &&
         std::string_view(terminal) != "dumb";
}

std::string Screen::Painted(std::string_view text, Colour colour) const {
  const auto code = std::find_if(kCodes.begin(), kCodes.end(),
                                 [colour](const ColourCode& c) { return c.colour == colour; });
  if (!colours_ || code == kCodes.end()) return std::string(text);
  return code->code + std::string(text) + "\033[0m";
}

void Screen::Line(std::string_view text, Colour colour) {
  std::printf("%s\n", Painted(Printable(text), colour).c_str());
}

void Screen::Table(const std::vector<std::string>& headings, const std::vector<Row>& rows) {
  std::vector<size_t> widths;
  for (size_t column = 0; column < headings.size(); ++column) {
    size_t width = Width(headings[column]);
    for (const Row& row : rows) width = std::max(width, Width(Printable(row[column].text)));
    widths.push_back(width);
  }
  const auto print = [&](const Row& row) {
    std::string line;
    std::string gap;  // blanks that are owed; none at a line's end
    for (size_t column = 0; column < row.size(); ++column) {
      const std::string text = Printable(row[column].text);
      const std::string blanks(widths[column] - Width(text), ' ');
      if (row[column].right) gap += blanks;
      if (!text.empty()) line += std::exchange(gap, {}) + Painted(text, row[column].colour);
      if (!row[column].right) gap += blanks;
      gap += "  ";
    }
    std::printf("%s\n", line.c_str());
  };
  Row heading;
  for (size_t column = 0; column < headings.size(); ++column) {
    heading.push_back({headings[column], Colour::kFaint, !rows.empty() && rows.front()[column].right});
  }
  print(heading);
  for (const Row& row : rows) print(row);
}

std::string Printable(std::string_view text) {
  std::string clean;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : kFirstPrintable;
    if (byte == kControlLead && next >= kContinuationFirst && next < kControlEnd) {
      clean += '?';
      ++i;
    } else {
      clean += byte < kFirstPrintable || byte == kDelete ? '?' : text[i];
    }
  }
  return clean;
}

std::string Age(double seconds) {
  for (size_t i = 0; i < kUnits.size(); ++i) {
    if (seconds >= kUnits[i].seconds) {
      return std::to_string(std::lround(std::floor(seconds / kUnitLengths[i]))) + " " + kUnits[i].name;
    }
  }
  return std::to_string(std::lround(seconds)) + " s";
}

}  // namespace zem::ctl
