#include <cstdint>
#include <cstdlib>
#include <string>

#include "app/ctxteng/ids/rule_tenants.h"
#include "proto/covedb/covedb.pb.h"
#include "tests/support/silent_log.h"

// Updates as a store of another version might send them: each begins with its length, its kind and the length
// of its operation.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zem::test::SilenceLog();
  Ctxt::RuleTenants tenants;
  const auto* const bytes = reinterpret_cast<const char*>(data);
  size_t at = 0;
  while (at + 3 <= size) {
    const size_t length = std::min<size_t>(data[at], size - at - 3);
    const bool is_rule = data[at + 1] % 2 == 0;
    const size_t operation = std::min<size_t>(data[at + 2], length);
    Ctxt::RuleTenants::Update update;
    update.set_object_type(is_rule ? orlane::zem::covedb::RULE : orlane::zem::covedb::RULE_SECTION);
    update.set_operation(std::string(bytes + at + 3, operation));
    update.set_object(std::string(bytes + at + 3 + operation, length - operation));
    is_rule ? tenants.OnRule(update) : tenants.OnRuleSection(update);
    at += 3 + length;
  }
  for (uint32_t rule = 0; rule < 8; ++rule) {
    const std::string text = tenants.Text(rule);
    if (!text.empty() && (!text.starts_with("[org=\"") || !text.ends_with("\"]: "))) std::abort();
  }
  tenants.StoreBegins();
  tenants.StoreComplete();
  if (tenants.HasRules()) std::abort();
  return 0;
}
