#pragma once

#include <string>
#include <utility>

#include "bench/kill/sweep/sweep_run.h"

namespace zem::bench {

/// What tools and the host itself change on the sweep's node: the management interface, and a port of a port
/// group, whose VM wants only security settings for it.
///
/// Threads: one.
class SweepHost {
 public:
  explicit SweepHost(SweepRun& run) : run_(run) {}

  // The operations: requested without waiting.
  void MigrateByFile(bool in);
  void TieSecurityPort(bool tied);
  /// An operator's capture at an interface, which is over after a moment.
  void Capture();

  void MakeSecurityPort();
  bool security_tied() const { return security_tied_; }
  bool interface_in() const { return interface_in_; }
  void ExpectInterface(bool in) { interface_in_ = in; }
  /// Whether the host differs from the configuration until that is sent again; asks once.
  bool TakeChangedByTool() { return std::exchange(changed_by_tool_, false); }

  /// What is wrong with the security port; empty when all is right.
  std::string SecurityDisagreement();
  /// What captures have left on the host; empty when nothing is.
  std::string CaptureDisagreement();

 private:
  static bool IsTied(const cJSON* ports);

  SweepRun& run_;
  bool interface_in_ = false;
  bool changed_by_tool_ = false;
  bool security_tied_ = false;
};

}  // namespace zem::bench
