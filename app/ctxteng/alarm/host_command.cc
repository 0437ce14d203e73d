#include "app/ctxteng/alarm/host_command.h"

#include <algorithm>
#include <chrono>
#include <sstream>

#include "framework/log/log.h"
#include "framework/process/command.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr zem::Duration kCommandLimit = std::chrono::seconds(10);
constexpr size_t kMaxDigits = 20;

}  // namespace

int RunHostCommand(const std::string& command, int stop_fd, std::string* output) {
  std::string error;
  const int result =
      zem::Tarvik::Util::ReadCmdOutput(command, output, &error, {.limit = kCommandLimit, .stop_fd = stop_fd});
  if (result < 0) ZLOG_WARN("[%s] %s: %s", __func__, command.c_str(), error.c_str());
  return result;
}

std::vector<std::string> Fields(const std::string& output) {
  std::istringstream words(output);
  std::vector<std::string> fields;
  for (std::string word; words >> word;) fields.push_back(word);
  return fields;
}

bool IsNumber(std::string_view text) {
  return !text.empty() && text.size() <= kMaxDigits &&
         std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

std::string ShellWord(std::string_view text) {
  std::string word = "'";
  for (const char c : text) {
    if (c == '\'') {
      word += "'\\''";
    } else {
      word += c;
    }
  }
  return word + "'";
}

}  // namespace Ctxt
