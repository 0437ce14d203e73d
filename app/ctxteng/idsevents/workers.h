#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "platform/core/thread.h"

namespace IdsEvtEng {

/// Threads that end together.
///
/// Threads: one owner.
class Workers {
 public:
  Workers();
  /// Joins, without a limit, what `Join` was not called for.
  ~Workers();
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  /// Throws std::system_error when the system refuses the thread.
  void Start(std::string name, std::function<void()> body);

  /// Joins the threads that end within `patience`.  The others are left to themselves, so their bodies must
  /// hold what they use; gives how many.
  size_t Join(zem::Duration patience);

 private:
  struct Ended;
  struct Worker {
    zem::NativeThread thread;
    size_t number;
  };

  const std::shared_ptr<Ended> ended_;
  std::vector<Worker> workers_;
};

}  // namespace IdsEvtEng
