#pragma once

#include <cstdint>
#include <string>

#include "app/zema/app/manager_requests.h"

namespace zem::zema {

/// A request of the manager that was refused because its queue was full.
struct RefusedRequest {
  RequestOrigin origin;
  /// The message's name without its package.
  std::string type;
  std::string payload;
  std::string reason;
  /// The node's state, as reported in a reply about the maintenance mode.
  uint32_t mmode_state = 0;
};

/// Answers the request with the reason of the refusal.  Does nothing for a message that has no answer: the
/// manager sends it again.
///
/// Threads: any but a provider's, since sending may wait for the manager.
void AnswerRefused(const RefusedRequest& refused);

}  // namespace zem::zema
