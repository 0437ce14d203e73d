#include "app/ctxteng/introspection/am_tables.h"

#include <algorithm>
#include <array>
#include <tuple>

namespace Ctxt {
namespace {

struct Action {
  uint32_t code;
  const char* name;
};
constexpr std::array kActions = {Action{21, "RA_DETECT"}, Action{24, "RA_DETECT_PREVENT"}};

bool Meet(const AmTables::Groups& one, const AmTables::Groups& other) {
  return std::any_of(one.begin(), one.end(), [&](const std::string& id) { return other.count(id) != 0; });
}

}  // namespace

bool RuleEntry::operator<(const RuleEntry& other) const {
  return std::tie(section_priority, section_id, rule_order) <
         std::tie(other.section_priority, other.section_id, other.rule_order);
}

const char* RuleActionName(uint32_t action) {
  for (const Action& row : kActions) {
    if (row.code == action) return row.name;
  }
  return "";
}

const std::string* AmTables::LeastGroup(const Groups& groups) const {
  const std::string* found = nullptr;
  const RuleEntry* least = nullptr;
  for (const std::string& group : groups) {
    const auto rules = group_rules_.find(group);
    if (rules == group_rules_.end() || rules->second.empty()) continue;
    const RuleEntry& first = rules->second.front();
    if (least != nullptr && !(first < *least)) continue;
    least = &first;
    found = &group;
  }
  return found;
}

std::optional<RuleEntry> AmTables::EffectiveRule(const Groups& groups) const {
  const std::string* const group = LeastGroup(groups);
  if (group == nullptr) return std::nullopt;
  return group_rules_.at(*group).front();
}

std::optional<RuleEntry> AmTables::EffectiveRuleOf(const std::string& vm_id) const {
  return EffectiveRule(GroupsOf(vm_id));
}

std::string AmTables::EffectiveGroupOf(const std::string& vm_id) const {
  const Groups groups = GroupsOf(vm_id);
  const std::string* const group = LeastGroup(groups);
  return group == nullptr ? std::string() : *group;
}

VmChanges AmTables::All() const {
  VmChanges all;
  for (const auto& [vm, groups] : vm_groups_) {
    if (const auto rule = EffectiveRule(groups)) all[vm] = {vm, kMuxUpdate, *rule};
  }
  return all;
}

void AmTables::SetGroups(const std::string& vm_id, const Groups& groups) {
  if (groups.empty()) {
    vm_groups_.erase(vm_id);
  } else {
    vm_groups_[vm_id] = groups;
  }
}

AmTables::Groups AmTables::GroupsOf(const std::string& vm_id) const {
  const auto found = vm_groups_.find(vm_id);
  return found == vm_groups_.end() ? Groups() : found->second;
}

// A VM may have the same rule before and after, by another group, and must then be left alone.
VmChanges AmTables::Changes(const Groups& groups, const std::function<void()>& change) {
  std::vector<std::pair<std::string, std::optional<RuleEntry>>> before;
  for (const auto& [vm, own] : vm_groups_) {
    if (Meet(groups, own)) before.emplace_back(vm, EffectiveRule(own));
  }
  change();
  VmChanges changes;
  for (const auto& [vm, old] : before) {
    const auto now = EffectiveRuleOf(vm);
    if (now == old) continue;
    changes[vm] = now ? VmChange{vm, kMuxUpdate, *now} : VmChange{vm, kMuxDelete, *old};
  }
  return changes;
}

VmChanges AmTables::ReplaceRule(uint32_t rule_id, const std::vector<RuleEntry>& entries,
                                const Groups& groups) {
  const auto is_of_rule = [rule_id](const RuleEntry& entry) { return entry.rule_id == rule_id; };
  Groups touched = groups;
  for (const auto& [group, rules] : group_rules_) {
    if (std::any_of(rules.begin(), rules.end(), is_of_rule)) touched.insert(group);
  }
  return Changes(touched, [&] {
    for (const std::string& group : touched) {
      std::vector<RuleEntry>& rules = group_rules_[group];
      std::erase_if(rules, is_of_rule);
      if (groups.count(group) != 0) rules.insert(rules.end(), entries.begin(), entries.end());
      std::stable_sort(rules.begin(), rules.end());
      if (rules.empty()) group_rules_.erase(group);
    }
  });
}

std::optional<uint64_t> AmTables::SectionPriority(const std::string& section_id) const {
  const auto found = section_priority_.find(section_id);
  if (found == section_priority_.end()) return std::nullopt;
  return found->second;
}

VmChanges AmTables::SetSection(const std::string& section_id, uint64_t priority, Groups* touched) {
  section_priority_[section_id] = priority;
  for (const auto& [group, rules] : group_rules_) {
    if (std::any_of(rules.begin(), rules.end(),
                    [&](const RuleEntry& entry) { return entry.section_id == section_id; })) {
      touched->insert(group);
    }
  }
  return Changes(*touched, [&] {
    for (const std::string& group : *touched) {
      std::vector<RuleEntry>& rules = group_rules_[group];
      for (RuleEntry& entry : rules) {
        if (entry.section_id == section_id) entry.section_priority = priority;
      }
      std::stable_sort(rules.begin(), rules.end());
    }
  });
}

VmChanges AmTables::SetProfile(const std::string& id, const MpsConfig& config) {
  profiles_[id] = config;
  VmChanges changes = All();
  std::erase_if(changes, [&id](const auto& change) { return change.second.rule.profile_id != id; });
  return changes;
}

const MpsConfig* AmTables::Profile(const std::string& id) const {
  const auto found = profiles_.find(id);
  return found == profiles_.end() ? nullptr : &found->second;
}

}  // namespace Ctxt
