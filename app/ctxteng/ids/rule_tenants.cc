#include "app/ctxteng/ids/rule_tenants.h"

#include <exception>
#include <mutex>
#include <utility>

#include "app/ctxteng/ids/store_message.h"
#include "platform/core/uuid.h"
#include "proto/base/tenant_context.pb.h"
#include "proto/covedb/firewall_objects.pb.h"

namespace Ctxt {
namespace {

namespace store = orlane::zem::covedb;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
constexpr uint32_t kIntrusionRule = 6;
constexpr uint32_t kIntrusionSection = 5;
constexpr int kSet = store::ObjectOpMsg::SET;
constexpr int kDelete = store::ObjectOpMsg::DELETE;

// A uuid that is absent, or all zero, is none.
template <class Message>
std::string TextOf(bool present, const Message& uuid) {
  if (!present || (uuid.first() == 0 && uuid.second() == 0)) return {};
  return zem::UuidText(uuid);
}

template <class Object, class Operation>
bool Parse(const store::MonitorUpdateMsg& update, const char* failure, Object* object, Operation* operation) {
  if (object->ParseFromString(update.object()) && operation->ParseFromString(update.operation())) return true;
  ZLOG_ERROR("IDSERR_FAIL_PARSE_COVEDB", "%s", failure);
  return false;
}

}  // namespace

void RuleTenants::OnRule(const Update& update) {
  try {
    TakeRule(update);
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(351, "Ids: Exception in processing rule updates. error: %s", error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(351, "Ids: Unknown exception in processing rule updates");
  }
}

void RuleTenants::TakeRule(const Update& update) {
  if (!IsOfType(update, store::RULE)) return;
  store::RuleMsg rule;
  store::RuleOpMsg operation;
  if (!Parse(update, "Failed to parse rule message", &rule, &operation)) return;
  if (ZLOG_WANTS(zem::kLogTrace)) {
    ZLOG_TRACE("Ids: rule data - %s, op data: %s", rule.ShortDebugString().c_str(),
               operation.ShortDebugString().c_str());
  }
  if (!rule.has_id() || !rule.has_type()) {
    ZLOG_WARN("Ids: rule id/type missing from covedb message");
    return;
  }
  // A rule that has become one of another feature is as good as deleted.
  if (rule.type() != kIntrusionRule || !operation.has_operation() || operation.operation() == kDelete) {
    const std::unique_lock lock(mutex_);
    rule_to_section_.erase(rule.id());
    return;
  }
  std::string section = TextOf(rule.has_section_id(), rule.section_id());
  if (operation.operation() != kSet || section.empty()) {
    ZLOG_CTX_ERROR(354, "Ids: rule missing section ID or wrong op, return");
    return;
  }
  ZLOG_DEBUG("Ids: Stored rule, section mapping for rule: %u, section: %s", rule.id(), section.c_str());
  const std::unique_lock lock(mutex_);
  rule_to_section_[rule.id()] = {std::move(section), connection_};
}

void RuleTenants::OnRuleSection(const Update& update) {
  try {
    TakeRuleSection(update);
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(351, "Ids: Exception in processing rule section updates. error: %s", error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(351, "Ids: Unknown exception in processing rule sections updates");
  }
}

void RuleTenants::TakeRuleSection(const Update& update) {
  if (!IsOfType(update, store::RULE_SECTION)) return;
  store::RuleSectionMsg section;
  store::RuleSectionOpMsg operation;
  if (!Parse(update, "Failed to parse rule section message", &section, &operation)) return;
  if (section.type() != kIntrusionSection) {
    ZLOG_DEBUG("Ids: rule section is not of type IDS skipping");
    return;
  }
  std::string id = TextOf(section.has_id(), section.id());
  if (id.empty()) {
    ZLOG_WARN("Ids: rule section id missing from covedb message");
    return;
  }
  if (operation.operation() == kDelete) {
    const std::unique_lock lock(mutex_);
    section_to_tenant_.erase(id);
    return;
  }
  if (operation.operation() != kSet || !section.has_tenant_context()) {
    ZLOG_CTX_ERROR(354, "Ids: rule section missing tenant ctx or wrong op");
    return;
  }
  const store::TenantContextMsg& tenant = section.tenant_context();
  ZLOG_DEBUG("Ids: Stored rule section, tenant context mapping for section: %s", id.c_str());
  const std::unique_lock lock(mutex_);
  section_to_tenant_[std::move(id)] = {tenant.org(), tenant.project(), tenant.vpc(), connection_};
}

const RuleTenants::Tenant* RuleTenants::Find(uint32_t rule_id) const {
  const auto rule = rule_to_section_.find(rule_id);
  if (rule == rule_to_section_.end()) {
    ZLOG_TRACE("Ids: tenant context has no such rule ID: %u", rule_id);
    return nullptr;
  }
  const auto section = section_to_tenant_.find(rule->second.id);
  if (section == section_to_tenant_.end()) {
    ZLOG_TRACE("Ids: section ID not found in the rule");
    return nullptr;
  }
  return &section->second;
}

bool RuleTenants::Fill(uint32_t rule_id, orlane::zem::TenantContextMsg* tenant) const {
  const std::shared_lock lock(mutex_);
  const Tenant* const found = Find(rule_id);
  if (found == nullptr) return false;
  tenant->set_org(found->org);
  tenant->set_project(found->project);
  tenant->set_vpc(found->vpc);
  return true;
}

std::string RuleTenants::Text(uint32_t rule_id) const {
  Tenant tenant;
  {
    const std::shared_lock lock(mutex_);
    if (const Tenant* const found = Find(rule_id)) tenant = *found;
  }
  if (tenant.org.empty()) {
    ZLOG_DEBUG("Ids: org details missing in tenant context");
    return {};
  }
  std::string text = "[org=\"" + tenant.org + "\"";
  if (!tenant.project.empty()) text += " proj=\"" + tenant.project + "\"";
  if (!tenant.vpc.empty()) text += " vpc=\"" + tenant.vpc + "\"";
  text += "]: ";
  ZLOG_DEBUG("Ids: tenant str: %s", text.c_str());
  return text;
}

bool RuleTenants::HasRules() const {
  const std::shared_lock lock(mutex_);
  return !rule_to_section_.empty();
}

void RuleTenants::StoreBegins() {
  const std::unique_lock lock(mutex_);
  ++connection_;
}

void RuleTenants::StoreComplete() {
  const std::unique_lock lock(mutex_);
  const auto gone = [this](const auto& entry) { return entry.second.connection != connection_; };
  std::erase_if(rule_to_section_, gone);
  std::erase_if(section_to_tenant_, gone);
}

void RuleTenants::Clear() {
  const std::unique_lock lock(mutex_);
  rule_to_section_.clear();
  section_to_tenant_.clear();
}

}  // namespace Ctxt
