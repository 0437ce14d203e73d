#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "app/ctxteng/introspection/mps_config.h"
#include "app/ctxteng/introspection/mux_operations.h"

namespace Ctxt {

/// A rule with one of its context profiles, as it stands on a group.
struct RuleEntry {
  uint32_t rule_id = 0;
  std::string profile_id;
  /// "RA_DETECT", "RA_DETECT_PREVENT" or empty.
  std::string action;
  uint64_t section_priority = 0;
  uint64_t rule_order = 0;
  std::string section_id;

  bool operator==(const RuleEntry&) const = default;
  /// The lesser one goes first.
  bool operator<(const RuleEntry& other) const;
};

/// The text of a rule's action code.
const char* RuleActionName(uint32_t action);

/// What a VM is to be configured with, or from.
struct VmChange {
  std::string vm_id;
  MuxOperation operation = kMuxUpdate;
  RuleEntry rule;
};
/// By VM, in the order of the ids.
using VmChanges = std::map<std::string, VmChange>;

/// The groups of VMs and the rules on them, from which follows the one rule by which a VM is protected: of
/// the first rules of its groups the least one.
///
/// Threads: one owner at a time.
class AmTables {
 public:
  using Groups = std::set<std::string>;

  /// Nothing when no group of `groups` has a rule.
  std::optional<RuleEntry> EffectiveRule(const Groups& groups) const;
  std::optional<RuleEntry> EffectiveRuleOf(const std::string& vm_id) const;
  /// The group that gives a VM its effective rule; empty when none does.
  std::string EffectiveGroupOf(const std::string& vm_id) const;
  /// The effective rules of all VMs.
  VmChanges All() const;

  /// Replaces the groups of a VM; an empty set removes the VM.
  void SetGroups(const std::string& vm_id, const Groups& groups);
  Groups GroupsOf(const std::string& vm_id) const;

  /// Takes a rule off all groups and puts `entries` of it on `groups`.
  VmChanges ReplaceRule(uint32_t rule_id, const std::vector<RuleEntry>& entries, const Groups& groups);

  /// Nothing when the section is not known.
  std::optional<uint64_t> SectionPriority(const std::string& section_id) const;
  void RemoveSection(const std::string& section_id) { section_priority_.erase(section_id); }
  /// Also gives the groups that have rules of the section.
  VmChanges SetSection(const std::string& section_id, uint64_t priority, Groups* touched);

  void RemoveProfile(const std::string& id) { profiles_.erase(id); }
  /// Gives the VMs whose rule has this profile.
  VmChanges SetProfile(const std::string& id, const MpsConfig& config);
  /// Null when it is not known; valid until the next change.
  const MpsConfig* Profile(const std::string& id) const;

 private:
  /// The group of `groups` whose first rule is the least; null when none has a rule.
  const std::string* LeastGroup(const Groups& groups) const;
  /// How `change` moves the effective rules of the VMs in `groups`.
  VmChanges Changes(const Groups& groups, const std::function<void()>& change);

  std::unordered_map<std::string, Groups> vm_groups_;
  std::unordered_map<std::string, uint64_t> section_priority_;
  std::unordered_map<std::string, std::vector<RuleEntry>> group_rules_;  // sorted
  std::unordered_map<std::string, MpsConfig> profiles_;
};

}  // namespace Ctxt
