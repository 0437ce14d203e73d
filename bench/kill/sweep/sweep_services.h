#pragma once

#include <string>

#include "bench/kill/sweep/sweep_run.h"

namespace zem::bench {

/// What the manager asks of the sweep's node beside its configuration: support bundles and neighbours.
///
/// Threads: one.
/// Errors: std::runtime_error with the check that failed.
class SweepServices {
 public:
  explicit SweepServices(SweepRun& run) : run_(run) {}

  // The operations: requested without waiting.
  void AskForBundle();
  void AskForNeighbours();

  /// Bundles that are left, and processes of the host's management API that are too many or missing; empty
  /// when all is right.
  std::string Disagreement();

 private:
  SweepRun& run_;
};

}  // namespace zem::bench
