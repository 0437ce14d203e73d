#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace IdsEvtEng {

/// The line with the rule's tenant as the member "zem_tenancy", or unchanged, after a log line, when there is
/// none.  All else in the line stays as it was written.
std::string AddTenant(std::string line, const std::function<std::string(uint32_t rule_id)>& tenant_of);

}  // namespace IdsEvtEng
