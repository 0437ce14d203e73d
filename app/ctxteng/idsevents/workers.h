#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "platform/core/thread.h"

namespace IdsEvtEng {

/// Threads that end together.
///
/// Threads: one owner.  The destructor joins, without a limit, what `Join` was not called for.
class Workers {
 public:
  /// Throws std::system_error when the system refuses the thread.
  void Start(std::string name, std::function<void()> body);

  /// Joins the threads that end within `patience`.  The others are left to themselves, so their bodies must
  /// hold what they use; gives how many.
  size_t Join(zem::Duration patience);

 private:
  std::vector<zem::NativeThread> threads_;
};

}  // namespace IdsEvtEng
