#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/core/clock.h"

namespace zem::bench {

class SweepNode;

/// Kills the daemon at every step of every kind of operation, and at steps of its recovery, and checks the
/// node each time.  Prints a row per operation, and for each failure the command that repeats it.
///
/// Threads: one owner.
class KillSweep {
 public:
  struct Options {
    /// Names of operations; empty: all.
    std::vector<std::string> operations;
    uint32_t from = 1;
    /// 0: up to the last step.
    uint32_t to = 0;
    uint32_t every = 1;
    bool before = true;
    bool after = true;
    /// One in this many kills is followed by a second one in the recovery; 0: none.
    uint32_t second_every = 4;
    /// The step of the recovery for all second kills; 0: any.
    uint32_t second_at = 0;
    double seconds = 1e9;
    uint64_t seed = 1;
    int clock_factor = 20;
    /// Print the steps of each operation.
    bool list = false;
    /// Print each kill.
    bool verbose = false;
    /// Folder for the daemon's log of each failure; empty: none.
    std::string logs = "";
  };

  static std::vector<std::string> OperationNames();

  explicit KillSweep(Options options);
  ~KillSweep();

  /// Number of failed checks.
  int Run();

 private:
  struct Operation;
  struct Kill {
    uint32_t step = 0;
    bool after = false;
    uint32_t second = 0;
    std::string name;
    std::string second_name;
  };
  struct Row {
    uint32_t steps = 0;
    int kills = 0;
    int second_kills = 0;
    int ended_before = 0;
    int failures = 0;
  };

  static const std::vector<Operation>& Operations();

  static void Print(const char* name, const Row& row);
  SweepNode& Node();
  bool TimeIsUp() const;
  void RunOperation(const Operation& operation, Row* row);
  uint32_t CountSteps(const Operation& operation);
  bool KillOnce(const Operation& operation, Kill* kill, Row* row);
  bool AwaitDeath();
  void Report(const Operation& operation, const Kill& kill, const std::string& problem);

  const Options options_;
  std::mt19937_64 random_;
  const TimePoint begin_;
  std::unique_ptr<SweepNode> node_;
  uint32_t recovery_steps_ = 0;
};

}  // namespace zem::bench
