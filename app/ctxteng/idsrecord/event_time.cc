// The library's reader of times builds a stream and a locale for each try.  Nearly all timestamps have one
// form, which is read here directly and gives what the library gives; the others go to the library.

#include "app/ctxteng/idsrecord/event_time.h"

#include <array>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <charconv>
#include <chrono>
#include <optional>
#include <sstream>
#include <string_view>

#include "app/ctxteng/idsrecord/line_budget.h"
#include "framework/log/log.h"

namespace IdsEvtEng {
namespace {

namespace posix_time = boost::posix_time;

constexpr zem::LogSource kLog{"tarvik", "idsevt"};

constexpr std::array kFormats = {"%Y-%m-%d %H:%M:%S", "%Y/%m/%d %H:%M:%S", "%d.%m.%Y %H:%M:%S", "%Y-%m-%d"};
constexpr uint32_t kLinesOfAKind = 10;
LineBudget g_wrong_times{kLinesOfAKind};

std::optional<unsigned> NumberAt(std::string_view text, size_t at, size_t digits) {
  unsigned number = 0;
  const char* const end = text.data() + at + digits;
  const auto read = std::from_chars(text.data() + at, end, number);
  if (read.ec != std::errc() || read.ptr != end) return std::nullopt;
  return number;
}

// "2024-01-02T03:04:05" or with a blank, and anything behind it.
std::optional<int64_t> UsualForm(std::string_view text) {
  constexpr size_t kLength = 19;
  if (text.size() < kLength || text[4] != '-' || text[7] != '-' || (text[10] != 'T' && text[10] != ' ') ||
      text[13] != ':' || text[16] != ':')
    return std::nullopt;
  // A longer last field is the library's to judge.
  if (text.size() > kLength && text[kLength] >= '0' && text[kLength] <= '9') return std::nullopt;
  const auto year = NumberAt(text, 0, 4);
  const auto month = NumberAt(text, 5, 2);
  const auto day = NumberAt(text, 8, 2);
  const auto hour = NumberAt(text, 11, 2);
  const auto minute = NumberAt(text, 14, 2);
  const auto second = NumberAt(text, 17, 2);
  if (!year || !month || !day || !hour || !minute || !second) return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(*year)),
                                         std::chrono::month(*month), std::chrono::day(*day)};
  if (!date.ok() || *year < 1400 || *hour > 23 || *minute > 59 || *second > 59) return std::nullopt;
  const int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  return ((days * 24 + *hour) * 60 + *minute) * 60 + *second;
}

std::optional<int64_t> AnyForm(const std::string& text) {
  for (const char* const format : kFormats) {
    std::istringstream stream(text);
    stream.imbue(std::locale(std::locale::classic(), new posix_time::time_input_facet(format)));
    posix_time::ptime time(posix_time::not_a_date_time);
    stream >> time;
    if (!time.is_special())
      return (time - posix_time::ptime(boost::gregorian::date(1970, 1, 1))).total_seconds();
  }
  return std::nullopt;
}

}  // namespace

uint32_t EpochSeconds(const std::string& timestamp) {
  std::string reason = "no known format: " + timestamp.substr(0, 64);
  try {
    auto seconds = UsualForm(timestamp);
    if (!seconds) seconds = AnyForm(timestamp);
    if (seconds) return static_cast<uint32_t>(*seconds);
  } catch (const std::exception& error) {
    reason = error.what();
  }
  if (g_wrong_times.Allows())
    ZLOG_CTX_ERROR(730, "Exception while converting time to epoch, %s", reason.c_str());
  return 0;
}

}  // namespace IdsEvtEng
