// Whose a rule is, asked for each alert.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "app/ctxteng/ids/rule_tenants.h"
#include "bench/flow/cases.h"
#include "platform/core/uuid.h"
#include "proto/base/tenant_context.pb.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/firewall_objects.pb.h"

namespace zem::bench {
namespace {

namespace store = orlane::zem::covedb;
using SteadyClock = std::chrono::steady_clock;

constexpr uint32_t kRules = 10000;
constexpr uint32_t kSections = 500;
constexpr int kLookups = 1000000;
constexpr int kReaders = 4;

struct Tenant {
  std::string org;
  std::string project;
  std::string vpc;
};

template <class Object>
Ctxt::RuleTenants::Update Update(store::ObjectType type, const Object& object) {
  Ctxt::RuleTenants::Update update;
  store::ObjectOpMsg operation;
  operation.set_operation(store::ObjectOpMsg::SET);
  update.set_object_type(type);
  update.set_object(object.SerializeAsString());
  update.set_operation(operation.SerializeAsString());
  return update;
}

template <class Find>
double NanosecondsEach(int lookups, int readers, const Find& find) {
  std::atomic<uint64_t> found{0};
  const auto begin = SteadyClock::now();
  std::vector<std::thread> threads;
  for (int reader = 0; reader < readers; ++reader) {
    threads.emplace_back([&, reader] {
      orlane::zem::TenantContextMsg tenant;
      uint64_t mine = 0;
      auto rule = static_cast<uint32_t>(reader);
      for (int i = 0; i < lookups; ++i) {
        rule = (rule * 1664525 + 1013904223) % kRules;
        mine += find(rule, &tenant) ? 1 : 0;
      }
      found += mine;
    });
  }
  for (std::thread& thread : threads) thread.join();
  const auto passed = std::chrono::duration<double, std::nano>(SteadyClock::now() - begin).count();
  if (found != static_cast<uint64_t>(lookups) * static_cast<uint64_t>(readers)) return 1e9;
  return passed / lookups / readers;
}

}  // namespace

void MeasureTenants(int percent) {
  const int lookups = std::max(1000, kLookups / 100 * percent);
  Ctxt::RuleTenants tenants;
  std::unordered_map<uint32_t, std::string> rule_to_section;
  std::unordered_map<std::string, Tenant> section_to_tenant;
  for (uint32_t i = 0; i < kSections; ++i) {
    store::RuleSectionMsg section;
    section.mutable_id()->set_first(7);
    section.mutable_id()->set_second(i + 1);
    section.set_type(5);
    section.mutable_tenant_context()->set_org("organisation-" + std::to_string(i));
    section.mutable_tenant_context()->set_project("project");
    section.mutable_tenant_context()->set_vpc("cloud");
    tenants.OnRuleSection(Update(store::RULE_SECTION, section));
    section_to_tenant[UuidText(section.id())] = {section.tenant_context().org(), "project", "cloud"};
  }
  for (uint32_t i = 0; i < kRules; ++i) {
    store::RuleMsg rule;
    rule.set_id(i);
    rule.set_type(6);
    rule.mutable_section_id()->set_first(7);
    rule.mutable_section_id()->set_second(i % kSections + 1);
    tenants.OnRule(Update(store::RULE, rule));
    rule_to_section[i] = UuidText(rule.section_id());
  }
  const auto ours = [&](uint32_t rule, orlane::zem::TenantContextMsg* tenant) {
    return tenants.Fill(rule, tenant);
  };
  const auto peer = [&](uint32_t rule, orlane::zem::TenantContextMsg* tenant) {
    const auto section = rule_to_section.find(rule);
    if (section == rule_to_section.end()) return false;
    const auto found = section_to_tenant.find(section->second);
    if (found == section_to_tenant.end()) return false;
    tenant->set_org(found->second.org);
    tenant->set_project(found->second.project);
    tenant->set_vpc(found->second.vpc);
    return true;
  };
  for (const int readers : {1, kReaders}) {
    std::array<double, 2> best{1e9, 1e9};
    for (int round = 0; round < 3; ++round) {
      best[0] = std::min(best[0], NanosecondsEach(lookups, readers, ours));
      best[1] = std::min(best[1], NanosecondsEach(lookups, readers, peer));
    }
    Print(readers == 1 ? "tenant-1-reader" : "tenant-4-readers", "ns", best[0], best[1], false);
  }
}

}  // namespace zem::bench
