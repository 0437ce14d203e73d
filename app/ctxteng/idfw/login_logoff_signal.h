#pragma once

#include <mutex>

#include "platform/core/condition.h"

namespace Ctxt {

/// What the threads of the delivery of logons wait for: the worker for a full cache or the end, a send for
/// the acknowledgement.
struct LoginLogoffSignal {
  std::mutex mutex;  // guards the flags, and what else is said to be under it
  zem::Condition changed;
  /// The cache has passed its threshold, and nothing was sent since.
  bool threshold_passed = false;
  bool stopped = false;
};

}  // namespace Ctxt
