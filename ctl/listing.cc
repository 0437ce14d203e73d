#include "ctl/listing.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "ctl/daemon_client.h"
#include "ctl/outcome.h"
#include "ctl/screen.h"

namespace zem::ctl {
namespace {

struct StateColour {
  std::string_view state;
  Colour colour;
};
constexpr std::array kStateColours = {
    StateColour{"ok", Colour::kGood},          StateColour{"up", Colour::kGood},
    StateColour{"healthy", Colour::kGood},     StateColour{"running", Colour::kGood},
    StateColour{"waiting", Colour::kGood},     StateColour{"starting", Colour::kWarning},
    StateColour{"stopping", Colour::kWarning}, StateColour{"busy", Colour::kWarning},
    StateColour{"degraded", Colour::kBad},     StateColour{"down", Colour::kBad},
    StateColour{"failed", Colour::kBad},       StateColour{"stuck", Colour::kBad},
};

struct Unit {
  double size;
  const char* name;
};

std::string Scaled(double value, std::span<const Unit> units) {
  const auto unit =
      std::find_if(units.begin(), units.end() - 1, [value](const Unit& u) { return value >= u.size; });
  std::array<char, 48> text;
  std::snprintf(text.data(), text.size(), value == 0 || unit->size == 1 ? "%.0f %s" : "%.1f %s",
                value / unit->size, unit->name);
  return text.data();
}
constexpr std::array kByteUnits = {Unit{1 << 30, "GiB"}, Unit{1 << 20, "MiB"}, Unit{1 << 10, "KiB"},
                                   Unit{1, "B"}};
constexpr std::array kMicroUnits = {Unit{1e6, "s"}, Unit{1e3, "ms"}, Unit{1, "us"}};

Colour ColourOf(const std::string& state) {
  const auto row = std::find_if(kStateColours.begin(), kStateColours.end(),
                                [&state](const StateColour& c) { return c.state == state; });
  return row == kStateColours.end() ? Colour::kNone : row->colour;
}

}  // namespace

std::string Shown(const Json& value, Show show) {
  if (!value.is_number()) return value.text();
  switch (show) {
    case Show::kBytes:
      return Scaled(value.number(), kByteUnits);
    case Show::kAge:
      return Age(value.number());
    case Show::kMicros:
      return Scaled(value.number(), kMicroUnits);
    default:
      return value.text();
  }
}

void ShowTable(Screen& screen, const Json& rows, std::span<const Column> columns, const char* none) {
  if (rows.size() == 0) return screen.Line(none, Colour::kFaint);
  std::vector<std::string> headings;
  for (const Column& column : columns) headings.emplace_back(column.heading);
  std::vector<Screen::Row> table;
  for (const Json& row : rows.elements()) {
    Screen::Row cells;
    for (const Column& column : columns) {
      const std::string text = Shown(row[column.member], column.show);
      const bool left = column.show == Show::kText || column.show == Show::kState;
      cells.push_back({text, column.show == Show::kState ? ColourOf(text) : Colour::kNone, !left});
    }
    table.push_back(std::move(cells));
  }
  screen.Table(headings, table);
}

void PrintJson(const Json& answer) { std::printf("%s\n", answer.Compact().c_str()); }

int ShowList(const Work& work, const char* command, const char* member, std::span<const Column> columns,
             const char* none) {
  const Json answer = work.daemon.AskJson(command);
  if (work.json) {
    PrintJson(answer);
    return kHealthy;
  }
  ShowTable(work.screen, answer[member], columns, none);
  const double left_out = answer["left_out"].number();
  if (left_out > 0) work.screen.Line("and " + answer["left_out"].text() + " more", Colour::kFaint);
  return kHealthy;
}

}  // namespace zem::ctl
