#include "app/ctxteng/idsrecord/url_parts.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace IdsEvtEng {
namespace {

constexpr std::string_view kSchemeEnd = "://";

bool IsPort(std::string_view text) {
  uint16_t port = 0;
  const char* const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, port);
  return read.ec == std::errc() && read.ptr == end;
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

UrlParts SplitUrl(std::string_view url) {
  UrlParts parts;
  if (const size_t end = url.find(kSchemeEnd); end != std::string_view::npos) {
    parts.scheme = url.substr(0, end);
    std::transform(parts.scheme.begin(), parts.scheme.end(), parts.scheme.begin(), &Lower);
    url.remove_prefix(end + kSchemeEnd.size());
  }
  const size_t slash = std::min(url.find('/'), url.size());
  parts.path = slash < url.size() ? url.substr(slash) : "/";
  std::string_view host = url.substr(0, slash);
  if (const size_t user = host.rfind('@'); user != std::string_view::npos) host.remove_prefix(user + 1);
  // The colons of an address in brackets are its own.
  const size_t colon = host.rfind(':');
  if (colon != std::string_view::npos && host.find(']', colon) == std::string_view::npos) {
    if (const std::string_view port = host.substr(colon + 1); IsPort(port)) parts.port = port;
    host = host.substr(0, colon);
  }
  parts.host = host;
  return parts;
}

}  // namespace IdsEvtEng
