#include "app/zema/proxy/switch_id.h"

#include <utility>

#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr size_t kUuidLength = 36;
constexpr size_t kHalfDigits = 16;

constexpr bool IsDash(size_t offset) { return offset == 8 || offset == 13 || offset == 18 || offset == 23; }

bool IsHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

bool IsUuid(const std::string& text) {
  if (text.size() != kUuidLength) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (IsDash(i) ? text[i] != '-' : !IsHexDigit(text[i])) return false;
  }
  return true;
}

}  // namespace

bool ConvertDvsUuidToQubFormat(std::string* id) {
  if (id->find(' ') != std::string::npos) return true;
  if (!IsUuid(*id)) {
    ZLOG_TO(kLog, kLogError, "[%s] Malformed host_switch ID: [%s]", __func__, id->c_str());
    return false;
  }
  std::string converted;
  size_t digits = 0;
  for (const char c : *id) {
    if (c == '-') continue;
    if (digits > 0 && digits % 2 == 0) converted += digits == kHalfDigits ? '-' : ' ';
    converted += c;
    ++digits;
  }
  ZLOG_INFO("[%s] Dvs ID [%s] converted to [%s]", __func__, id->c_str(), converted.c_str());
  *id = std::move(converted);
  return true;
}

}  // namespace zem::zema
