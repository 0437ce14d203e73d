#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench/vifs/instant_manager.h"
#include "bench/vifs/world.h"

namespace zem::bench {

/// Threads that make the library calls, manager calls and files of an attach, and nothing else: the least
/// that an attach needs.  They are synchronised only by the called code.
///
/// Threads: one owner.  Errors: std::runtime_error.
class BareSide {
 public:
  explicit BareSide(World& world);

  /// Attaches all with that many threads, and returns the seconds of each.  With `in_turn` one thread at a
  /// time changes ports, as the host's rule for its switch demands of everyone.
  std::vector<double> Attach(const std::vector<Vif>& vifs, size_t threads, bool in_turn = false);

 private:
  /// Lets a thread wait for the manager.
  struct Waiter {
    std::mutex mutex;
    std::condition_variable answered;
    std::unique_ptr<zema::PortAttached> port;
  };

  void AttachOne(const Vif& vif, size_t waiter, bool in_turn);
  void CreatePort(const zema::PortAttached& port, const Vif& vif);
  void Text(const std::string& port, const char* property, const std::string& value);

  World& world_;
  const zema::SwitchLibrary::Calls& calls_;
  std::vector<std::unique_ptr<Waiter>> waiters_;
  std::mutex turn_;
  InstantManager instant_;  // destroyed first
};

}  // namespace zem::bench
