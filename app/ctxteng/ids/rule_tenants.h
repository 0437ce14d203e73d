#pragma once

#include <cstdint>
#include <shared_mutex>
#include <string>
#include <unordered_map>

namespace orlane::zem {
class TenantContextMsg;
namespace covedb {
class MonitorUpdateMsg;
}
}  // namespace orlane::zem

namespace Ctxt {

/// Whose the rules of intrusion detection are: rule to section to tenant, as the store has them.
///
/// Threads: all operations from any thread; none waits.
class RuleTenants {
 public:
  using Update = orlane::zem::covedb::MonitorUpdateMsg;

  /// Updates of the store for a rule and for a rule section.  What cannot be used is logged and changes
  /// nothing.
  void OnRule(const Update& update);
  void OnRuleSection(const Update& update);

  /// False when the rule's tenant is not known; `tenant` is then unchanged.
  bool Fill(uint32_t rule_id, orlane::zem::TenantContextMsg* tenant) const;
  /// `[org="O" proj="P" vpc="V"]: `, without what is not set; empty without an organisation.
  std::string Text(uint32_t rule_id) const;
  bool HasRules() const;

  /// The store begins to send all that it has, and has sent it: what has not come in between is dropped.
  void StoreBegins();
  void StoreComplete();
  void Clear();

 private:
  struct Section {
    std::string id;
    uint64_t connection = 0;
  };
  struct Tenant {
    std::string org;
    std::string project;
    std::string vpc;
    uint64_t connection = 0;
  };

  void TakeRule(const Update& update);
  void TakeRuleSection(const Update& update);
  // With the mutex; null when it is not known.
  const Tenant* Find(uint32_t rule_id) const;

  mutable std::shared_mutex mutex_;  // guards all below
  uint64_t connection_ = 0;          // to the store; each entry has the one in which it was told last
  std::unordered_map<uint32_t, Section> rule_to_section_;
  std::unordered_map<std::string, Tenant> section_to_tenant_;
};

}  // namespace Ctxt
