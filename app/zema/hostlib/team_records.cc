#include "app/zema/hostlib/team_records.h"

#include <cstring>

#include "platform/switchlib/switchlib.h"

namespace zem::zema {
namespace {

template <class Record>
void Append(std::string* bytes, const Record& record) {
  bytes->append(reinterpret_cast<const char*>(&record), sizeof(record));
}

bool AppendName(std::string* bytes, const std::string& name) {
  DVSName record{};
  if (name.size() >= sizeof(record.text)) return false;
  std::memcpy(record.text, name.data(), name.size());
  Append(bytes, record);
  return true;
}

bool AppendNames(std::string* bytes, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (!AppendName(bytes, name)) return false;
  }
  return true;
}

// Whole records of names at the end of another.
std::optional<std::vector<std::string>> ReadNames(std::string_view bytes) {
  std::vector<std::string> names;
  for (size_t at = 0; at < bytes.size(); at += sizeof(DVSName)) {
    const std::string_view name = bytes.substr(at, sizeof(DVSName));
    const size_t end = name.find('\0');
    if (end == std::string_view::npos) return std::nullopt;
    names.emplace_back(name.substr(0, end));
  }
  return names;
}

}  // namespace

std::optional<std::string> BuildTeamPolicy(const SwitchTeaming& teaming) {
  VSTeamPolicy policy{};
  const size_t names = teaming.active.size() + teaming.standby.size();
  policy.size = static_cast<uint32_t>(sizeof(policy) + names * sizeof(DVSName));
  policy.load_balance = teaming.policy;
  policy.link_criteria = VS_TEAM_LINK_STATE_ONLY;
  policy.flags = VS_TEAM_NOTIFY_SWITCHES | (teaming.rolling_order != 0 ? VS_TEAM_ROLLING_ORDER : 0);
  policy.num_active = static_cast<uint32_t>(teaming.active.size());
  policy.num_standby = static_cast<uint32_t>(teaming.standby.size());
  std::string bytes;
  bytes.reserve(policy.size);
  Append(&bytes, policy);
  if (!AppendNames(&bytes, teaming.active) || !AppendNames(&bytes, teaming.standby)) return std::nullopt;
  return bytes;
}

std::optional<std::string> BuildTeamTable(uint32_t kind, const std::vector<SwitchTeaming>& teamings) {
  LSTeamTable table{};
  table.kind = kind;
  table.count = static_cast<uint32_t>(teamings.size());
  std::string bytes;
  Append(&bytes, table);
  for (const SwitchTeaming& teaming : teamings) {
    const auto policy = BuildTeamPolicy(teaming);
    if (!policy || !AppendName(&bytes, teaming.name)) return std::nullopt;
    bytes += *policy;
  }
  table.size = static_cast<uint32_t>(bytes.size());
  std::memcpy(bytes.data(), &table, sizeof(table));
  return bytes;
}

std::optional<SwitchTeaming> ReadTeamPolicy(std::string_view record) {
  VSTeamPolicy policy;
  if (record.size() < sizeof(policy)) return std::nullopt;
  std::memcpy(&policy, record.data(), sizeof(policy));
  const uint64_t count = uint64_t{policy.num_active} + policy.num_standby;
  if (policy.size != record.size() || record.size() != sizeof(policy) + count * sizeof(DVSName)) {
    return std::nullopt;
  }
  const auto names = ReadNames(record.substr(sizeof(policy)));
  if (!names) return std::nullopt;
  SwitchTeaming teaming;
  teaming.policy = policy.load_balance;
  teaming.active.assign(names->begin(), names->begin() + policy.num_active);
  teaming.standby.assign(names->begin() + policy.num_active, names->end());
  teaming.rolling_order = (policy.flags & VS_TEAM_ROLLING_ORDER) != 0 ? 1 : 0;
  return teaming;
}

std::optional<std::vector<std::string>> ReadLacpNames(std::string_view record) {
  LacpTable table;
  if (record.size() < sizeof(table)) return std::nullopt;
  std::memcpy(&table, record.data(), sizeof(table));
  if (table.size != record.size() ||
      record.size() != sizeof(table) + uint64_t{table.count} * sizeof(DVSName)) {
    return std::nullopt;
  }
  return ReadNames(record.substr(sizeof(table)));
}

}  // namespace zem::zema
