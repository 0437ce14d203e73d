#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "bench/kill/sweep/sweep_run.h"

namespace zem::bench {

/// The logical switches that the store has for the sweep's node.
///
/// Threads: one.
class SweepStore {
 public:
  explicit SweepStore(SweepRun& run) : run_(run) {}

  void PutSwitches();
  /// A change whose outcome no peer waits for.
  void PutSwitchesUnheard();
  void DeleteSwitches();
  /// More than an operation should begin with.
  bool many() const;

  /// The host was removed: until the manager writes the switches again, one that came back may have them.
  void ForgetSwitches();
  bool forgotten() const { return !forgotten_.empty(); }
  void WriteForgottenSwitches();

  /// What the networks of the host, configured or not, lack or have too much of; empty when all is right.
  std::string Disagreement(bool configured);

 private:
  std::string NewSwitches();
  void ChangeStore(const std::string& change);

  SweepRun& run_;
  std::set<uint32_t> switches_;
  std::set<uint32_t> forgotten_;
  uint64_t barrier_ = 0;
};

}  // namespace zem::bench
