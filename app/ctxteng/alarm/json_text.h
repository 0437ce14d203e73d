#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace Ctxt {

/// The members of an alarm's context, in their order.
using JsonMembers = std::vector<std::pair<std::string, std::variant<std::string, int64_t>>>;

/// A JSON object on one line without blanks; texts are escaped.
std::string JsonText(const JsonMembers& members);
/// The same with a blank behind each colon and comma.
std::string SpacedJsonText(const JsonMembers& members);

}  // namespace Ctxt
