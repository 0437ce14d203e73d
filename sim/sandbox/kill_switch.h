#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zem::sim {

struct KillPage;

/// Orders the daemon's death at one of its steps, which the library of sim/killpoints counts in the daemon.
///
/// Threads: all operations from any thread; one order at a time.
class KillSwitch {
 public:
  /// The library, or empty when this build has none.
  static std::string Library();

  /// `path`: the page that the daemon shares.  Throws std::system_error.
  explicit KillSwitch(const std::string& path);
  ~KillSwitch();
  KillSwitch(const KillSwitch&) = delete;
  KillSwitch& operator=(const KillSwitch&) = delete;

  /// From now on steps count from 1, and the daemon is killed before (or behind) step `at`; 0 only counts.
  /// The order holds over a start of the daemon, and for one death.
  void Arm(uint32_t at, bool after);
  /// Takes the order back.
  void Disarm();

  struct State {
    bool armed = false;
    /// The order was carried out.
    bool killed = false;
    uint32_t steps = 0;
    /// The step at which it was.
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
