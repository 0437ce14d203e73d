#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zem::sim {

struct KillPage;

/// Orders the daemon's death at one of its steps, which the library in sim/killpoints counts inside the
/// daemon.
///
/// Threads: all operations from any thread; one order at a time.
class KillSwitch {
 public:
  /// Path of the library; empty when this build has none.
  static std::string Library();

  /// `path`: the page that is shared with the daemon.  Throws std::system_error.
  explicit KillSwitch(const std::string& path);
  ~KillSwitch();
  KillSwitch(const KillSwitch&) = delete;
  KillSwitch& operator=(const KillSwitch&) = delete;

  /// Counts steps from 1 again, and kills the daemon before (or after) step `at`; 0 only counts.  The order
  /// survives a start of the daemon and is valid for one death.
  void Arm(uint32_t at, bool after);
  /// Cancels the order.
  void Disarm();

  struct State {
    bool armed = false;
    /// True when the order was carried out.
    bool killed = false;
    uint32_t steps = 0;
    /// The step at which the daemon was killed.
    std::string step;
  };
  State state() const;
  /// The last `count` steps, oldest first.
  std::vector<std::string> LastSteps(uint32_t count) const;

 private:
  std::string NameOf(uint32_t step) const;

  KillPage* page_;
};

}  // namespace zem::sim
