#pragma once

#include <functional>
#include <utility>

#include "framework/tasks/runnable.h"

namespace zem {

/// A task that needs no class of its own.
class FunctionTask final : public Runnable {
 public:
  explicit FunctionTask(std::function<void()> work) : work_(std::move(work)) {}
  void Run() override { work_(); }
  const char* what() const override { return work_.target_type().name(); }
  bool IsBatchable() const override { return false; }

 private:
  const std::function<void()> work_;
};

}  // namespace zem
