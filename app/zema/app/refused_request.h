#pragma once

#include <string>
#include <string_view>

#include "app/zema/app/later_parts.h"

namespace zem::zema {

/// Answers a request of the manager that no queue has taken with `reason`.  Nothing for a message that has no
/// answer: the manager asks again.  `type` is without its package.
///
/// Threads: any but a provider's, since sending may wait for the manager.
void AnswerRefused(const RequestOrigin& origin, std::string_view type, const std::string& payload,
                   const std::string& reason);

}  // namespace zem::zema
