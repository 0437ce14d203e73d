#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bench/kill/sweep/sweep_host.h"
#include "bench/kill/sweep/sweep_run.h"
#include "bench/kill/sweep/sweep_shape.h"
#include "bench/kill/sweep/sweep_store.h"

namespace zem::bench {

/// What the manager wants of the sweep's node: a configuration or none, maintenance, controllers.
///
/// Threads: one.
/// Errors: std::runtime_error with the check that failed.
class SweepManager {
 public:
  SweepManager(SweepRun& run, SweepStore& store, SweepHost& host) : run_(run), store_(store), host_(host) {}

  // The operations: requested without waiting.
  void SendConfig(const Shape& shape);
  void SendRemoval();
  /// By an operator's command.
  void Reset();
  void SetMaintenance(bool on);
  void SendSwitch();
  void SendControllers();
  void RestoreVif();

  bool configured() const { return configured_; }
  const Shape& shape() const { return shape_; }
  bool maintenance() const { return maintenance_; }

  /// Checks that the host matches its checksum, and sends a configuration again that was not answered.
  void SettleConfig();
  /// What of the configuration is not in force, or left over; empty when all is right.
  std::string Disagreement();
  std::string ControllersDisagreement();
  /// Settings that wait for the host's maintenance mode are reported on the switch, and applied when it
  /// comes.
  void CheckPerformance();

 private:
  struct Sent {
    std::string text;
    /// Empty for a removal.
    std::string checksum;
  };

  void BeginSent();
  void SendAgain();
  void AwaitClean();
  void Again(const std::string& command, const std::function<bool(const cJSON*)>& good);

  SweepRun& run_;
  SweepStore& store_;
  SweepHost& host_;
  std::vector<Sent> sent_;
  Shape shape_;
  bool configured_ = false;
  bool acknowledged_ = true;
  bool maintenance_ = false;
  bool clean_ = true;  // the last request was a reset or removal
  bool performance_waits_ = false;
  std::string controller_;
};

}  // namespace zem::bench
