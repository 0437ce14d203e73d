#pragma once

#include "framework/status/part_state.h"
#include "platform/core/clock.h"

namespace zem::Tarvik {

/// What operators see of a set-up of the realization that is not done: `last_failure` is the result of the
/// attempt before, `next_attempt` is nothing while one runs.
PartState SetUpState(int attempts, int last_failure, TimePoint next_attempt);

}  // namespace zem::Tarvik
