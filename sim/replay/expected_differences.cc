#include "sim/replay/expected_differences.h"

#include <fstream>
#include <stdexcept>
#include <string_view>

namespace zem::sim {
namespace {

constexpr std::string_view kBegin = "```differences";
constexpr std::string_view kEnd = "```";
constexpr std::string_view kMarks = "-+~";

}  // namespace

ExpectedDifferences ExpectedDifferences::Read(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error(path + " cannot be read");
  ExpectedDifferences expected;
  bool within = false;
  bool any = false;
  std::string text;
  for (size_t number = 1; std::getline(in, text); ++number) {
    if (!within) {
      within = text == kBegin;
      any = any || within;
    } else if (text == kEnd) {
      within = false;
    } else if (!text.empty()) {
      const std::string at = path + ":" + std::to_string(number) + ": ";
      if (text.size() < 3 || kMarks.find(text[0]) == std::string_view::npos || text[1] != ' ') {
        throw std::runtime_error(at + "a difference begins with \"- \", \"+ \" or \"~ \"");
      }
      try {
        expected.rows_.push_back({text, text[0], boost::regex(text.substr(2))});
      } catch (const boost::regex_error& error) {
        throw std::runtime_error(at + error.what());
      }
    }
  }
  if (!any || within) throw std::runtime_error(path + " has no whole block of differences");
  return expected;
}

bool ExpectedDifferences::Takes(const Difference& difference) {
  const std::string whole = difference.group + (difference.mark == '~' ? "" : ": " + difference.line);
  bool taken = false;
  for (Row& row : rows_) {
    if (row.mark != difference.mark || !boost::regex_match(whole, row.pattern)) continue;
    row.seen = true;
    taken = true;
  }
  return taken;
}

std::vector<std::string> ExpectedDifferences::Unseen() const {
  std::vector<std::string> unseen;
  for (const Row& row : rows_) {
    if (!row.seen) unseen.push_back(row.text);
  }
  return unseen;
}

}  // namespace zem::sim
