#include "app/zema/endpoint/vtep_reply.h"

#include <utility>

#include "app/zema/proxy/lum_reply.h"

namespace zem::zema {
namespace {

constexpr std::string_view kOk = "ok";
constexpr size_t kSettingMembers = 2;
constexpr size_t kEntryMembers = 4;

VtepEntryReply ParseEntry(std::string_view text) {
  const std::vector<std::string_view> members = SplitTokens(text, '~');
  VtepEntryReply entry;
  if (members.size() < kEntryMembers || members.size() > kEntryMembers + 1) return entry;
  if (members.size() > kEntryMembers && !members[4].empty()) {
    entry.mac = ParseMac(members[4]);
    if (!entry.mac) return entry;
  }
  entry.valid = true;
  entry.device = members[0];
  entry.ipv4 = members[1];
  entry.ipv6 = members[2];
  entry.status = members[3];
  return entry;
}

}  // namespace

VtepReply ParseVtepReply(std::string_view reply, size_t endpoints) {
  VtepReply parsed;
  if (!reply.starts_with(kOk)) return parsed;
  parsed.form = VtepReply::Form::kUnexpected;
  const std::vector<std::string_view> tokens = SplitTokens(reply, '|');
  constexpr size_t kFirstEntry = 1 + VtepReply::kSettings;
  if (tokens[0] != kOk || tokens.size() < kFirstEntry || tokens.size() - kFirstEntry < endpoints)
    return parsed;
  for (size_t i = 0; i < VtepReply::kSettings; ++i) {
    const std::vector<std::string_view> members = SplitTokens(tokens[i + 1], '~');
    if (members.size() != kSettingMembers) return parsed;
    parsed.settings[i] = {std::string(members[0]), std::string(members[1])};
  }
  for (size_t i = kFirstEntry; i < tokens.size(); ++i) {
    const bool asked = i - kFirstEntry < endpoints;
    if (!asked && tokens[i].empty()) continue;
    (asked ? parsed.entries : parsed.deletions).push_back(ParseEntry(tokens[i]));
  }
  parsed.form = VtepReply::Form::kGood;
  return parsed;
}

}  // namespace zem::zema
