#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/clock.h"

namespace zem {

/// What a loop of the process promises.
enum class LoopKind : uint8_t {
  /// It waits for nothing but its own queue or its descriptors: a step that lasts is a fault.
  kPrompt,
  /// Its steps may wait for scripts, libraries or other processes, as long as these may take.
  kWorker,
};

/// One loop's figures.
struct LoopReading {
  std::string name;
  LoopKind kind = LoopKind::kWorker;
  /// Steps begun since the loop's start; the same number seen twice, with `busy`, is the same step.
  uint64_t steps = 0;
  bool busy = false;
  /// The step in progress and its age; empty and zero between two steps.
  std::string step;
  Duration age{};
  Duration longest{};
  /// What the longest step did.
  std::string longest_step;
};

/// Makes the calling thread a loop for the scope: its steps are measured and can be seen from outside.  A
/// loop within a loop's step suspends the outer one, which then counts as waiting.
///
/// A step of more than kLongStep is logged when it ends, once for each thing the loop does.
class LoopThread {
 public:
  static constexpr Duration kLongStep = std::chrono::milliseconds(250);

  LoopThread(std::string_view name, LoopKind kind);
  ~LoopThread();
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  /// Of all loops of the process, in the order in which they began.  From any thread.
  static std::vector<LoopReading> ReadAll();
  /// By name, the steps of the loops that have ended.  Loops have few names.
  static std::map<std::string, uint64_t> StepsBefore();

 private:
  friend class LoopStep;
  class Loop;

  const std::shared_ptr<Loop> loop_;
  Loop* const outer_;
};

/// One step of the calling thread's loop, from construction to destruction; nothing on other threads.  A step
/// within a step belongs to the outer one.
class LoopStep {
 public:
  /// `what` lives at least as long as the process's loops do: a literal, or a type's name as the compiler
  /// writes it, which is made readable when it is shown.
  explicit LoopStep(const char* what);
  ~LoopStep();
  LoopStep(const LoopStep&) = delete;
  LoopStep& operator=(const LoopStep&) = delete;

 private:
  LoopThread::Loop* const loop_;
};

}  // namespace zem
