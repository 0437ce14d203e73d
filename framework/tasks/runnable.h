#pragma once

#include <typeinfo>

#include "platform/timeline/operation.h"

namespace zem {

/// Anything that can be executed.
class Runnable {
 public:
  /// The work.
  virtual void Run() = 0;

  /// Called when a thread's body leaves by unwinding, so that it keeps no lock.
  virtual void Unlock() {}

  virtual ~Runnable() = default;

  /// The operation that the thread that made it worked for: whoever runs it works for that one, too.
  const timeline::Carried& carried() const { return carried_; }

  /// Whether a batching worker may absorb it instead of running it.
  virtual bool IsBatchable() const { return true; }

  /// What it is, for whoever looks at the loop that runs it; lives as long as the process.
  virtual const char* what() const { return typeid(*this).name(); }

 private:
  timeline::Carried carried_;
};

/// Gathers batchable tasks and handles them in one run; by the thread of its worker only.
class BatchRunnable : public Runnable {
 public:
  /// Absorbs a batchable task, which the caller keeps.  May throw: the task then counts as not added.
  virtual void AddTask(Runnable* task) = 0;

  /// Forgets everything gathered, before a batch begins.
  virtual void Reset() = 0;

  /// Entries gathered.
  virtual long Count() const = 0;

  /// Announces a task that is not batchable; it runs by itself when nothing is gathered.
  virtual void UpdateBatcher(Runnable* /*task*/) {}
};

}  // namespace zem
