#include "app/zema/proxy/lum_reply.h"

#include <charconv>

namespace zem::zema {
namespace {

constexpr std::string_view kOk = "ok";
constexpr size_t kMacPairs = 6;
constexpr uint64_t kMaxMac = (uint64_t{1} << 48) - 1;

// Returns the text after "ok|", which is empty for "ok" alone.
std::optional<std::string_view> AfterOk(std::string_view reply) {
  if (!reply.starts_with(kOk)) return std::nullopt;
  reply.remove_prefix(kOk.size());
  if (reply.empty()) return reply;
  if (reply.front() != '|') return std::nullopt;
  return reply.substr(1);
}

std::optional<uint64_t> WholeNumber(std::string_view text, int base) {
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

std::vector<std::string_view> SplitTokens(std::string_view text, char separator) {
  std::vector<std::string_view> tokens;
  for (size_t end = text.find(separator); end != std::string_view::npos; end = text.find(separator)) {
    tokens.push_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  tokens.push_back(text);
  return tokens;
}

std::optional<std::vector<std::string>> ParseOkList(std::string_view reply, bool keep_empty) {
  const std::optional<std::string_view> list = AfterOk(reply);
  if (!list) return std::nullopt;
  std::vector<std::string> members;
  if (list->empty()) return members;
  for (const std::string_view member : SplitTokens(*list, ',')) {
    if (keep_empty || !member.empty()) members.emplace_back(member);
  }
  return members;
}

std::optional<std::vector<TzDvs>> ParseTzToDvs(std::string_view reply, size_t* skipped) {
  *skipped = 0;
  const std::optional<std::string_view> entries = AfterOk(reply);
  if (!entries) return std::nullopt;
  std::vector<TzDvs> mapping;
  if (entries->empty()) return mapping;
  for (const std::string_view entry : SplitTokens(*entries, '|')) {
    const std::vector<std::string_view> members = SplitTokens(entry, ':');
    if (members.size() != 3) {
      ++*skipped;
      continue;
    }
    mapping.push_back({std::string(members[0]), std::string(members[1]), std::string(members[2])});
  }
  return mapping;
}

GuestLane ParseGuestLane(std::string_view reply) {
  if (reply == "found") return GuestLane::kFound;
  if (reply == "notFound") return GuestLane::kNotFound;
  return GuestLane::kUnreadable;
}

std::optional<uint64_t> ParseMac(std::string_view text) {
  if (text.find(':') == std::string_view::npos) {
    const std::optional<uint64_t> value = WholeNumber(text, 10);
    return value && *value <= kMaxMac ? value : std::nullopt;
  }
  const std::vector<std::string_view> pairs = SplitTokens(text, ':');
  if (pairs.size() != kMacPairs) return std::nullopt;
  uint64_t mac = 0;
  for (const std::string_view pair : pairs) {
    const std::optional<uint64_t> byte = WholeNumber(pair, 16);
    if (!byte || pair.size() != 2) return std::nullopt;
    mac = mac << 8 | *byte;
  }
  return mac;
}

}  // namespace zem::zema
