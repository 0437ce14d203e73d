#pragma once

#include <string>

#include "bench/kill/sweep/sweep_run.h"

namespace zem::bench {

/// The VM that operations change, and another one that has to keep its ports.
///
/// Threads: one.
/// Errors: std::runtime_error with the check that failed.
class SweepVm {
 public:
  explicit SweepVm(SweepRun& run) : run_(run) {}

  // The states in which operations begin.
  /// The VM runs here, in network `ls`, or is off; it has to be here.
  void Turn(bool on, const std::string& ls);
  /// The running VM goes to another host.
  void TakeAway();
  void TurnBystander(bool on);
  bool here() const { return here_; }

  // The operations: requested without waiting.
  void PowerOn();
  void PowerOff();
  void Move();
  void FailMove();
  void LiveOut();
  void LiveIn();
  void Relocate();

  /// What is not as the peers want it; empty when all is right.
  std::string Disagreement();
  void CheckBystander();

 private:
  bool IsOn(const std::string& vm);
  std::string Path();
  void Change(const std::string& command);
  void Heal();
  void DetachAgain(const std::string& device, const std::string& network);

  SweepRun& run_;
  bool on_ = false;
  bool here_ = true;
  std::string away_;  // folder of the VM that runs on another host
};

}  // namespace zem::bench
