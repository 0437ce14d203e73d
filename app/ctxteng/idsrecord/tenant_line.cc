// The member is spliced into the text: a line that is read and written anew would come back with other
// numbers, blanks and escapes than the detection process wrote.

#include "app/ctxteng/idsrecord/tenant_line.h"

#include <exception>

#include "app/ctxteng/idsrecord/json_line.h"
#include "app/ctxteng/idsrecord/line_budget.h"
#include "framework/log/log.h"

namespace IdsEvtEng {
namespace {

constexpr zem::LogSource kLog{"tarvik", "idsevt"};
constexpr uint32_t kLinesOfAKind = 10;
LineBudget g_wrong_lines{kLinesOfAKind};

std::string Quoted(const std::string& text) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20) {
      quoted += "\\u00";
      quoted += kDigits[byte >> 4];
      quoted += kDigits[byte & 0xF];
      continue;
    }
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + '"';
}

std::string Splice(const std::string& line, const JsonLine& members, const std::string& tenant) {
  std::string spliced = line;
  if (const std::string_view old = members.At(Member::kTenancy); !old.empty()) {
    spliced.replace(static_cast<size_t>(old.data() - line.data()), old.size(), Quoted(tenant));
  } else {
    spliced.insert(spliced.rfind('}'), ",\"zem_tenancy\":" + Quoted(tenant));
  }
  return spliced;
}

}  // namespace

std::string AddTenant(std::string line, const std::function<std::string(uint32_t rule_id)>& tenant_of) {
  JsonLine members;
  if (!members.Parse(line)) {
    if (g_wrong_lines.Allows())
      ZLOG_CTX_ERROR(729, "Exception while parsing JSON string, %s", members.error().c_str());
    return line;
  }
  const auto rule_id = members.As<uint32_t>(Member::kRuleId);
  if (!rule_id) {
    ZLOG_DEBUG("Tenant context not added as there's no rule ID in event");
    return line;
  }
  try {
    const std::string tenant = tenant_of(*rule_id);
    if (!tenant.empty()) return Splice(line, members, tenant);
    ZLOG_DEBUG("Tenant context unavailable for rule id: %d", static_cast<int>(*rule_id));
  } catch (const std::exception& error) {
    if (g_wrong_lines.Allows())
      ZLOG_CTX_ERROR(729, "Exception while adding tenancy to JSON string, %s", error.what());
  }
  return line;
}

}  // namespace IdsEvtEng
