#pragma once

#include <cstdint>
#include <string>

#include "app/zema/app/manager_requests.h"

namespace zem::zema {

/// A request of the manager that no queue has taken.
struct RefusedRequest {
  RequestOrigin origin;
  /// Without its package.
  std::string type;
  std::string payload;
  std::string reason;
  /// The node's state as a reply of the maintenance mode says it.
  uint32_t mmode_state = 0;
};

/// Answers it with its reason.  Nothing for a message that has no answer: the manager asks again.
///
/// Threads: any but a provider's, since sending may wait for the manager.
void AnswerRefused(const RefusedRequest& refused);

}  // namespace zem::zema
