#pragma once

#include <functional>
#include <memory>
#include <mutex>

namespace zem {
class TaskThread;
}  // namespace zem

namespace zem::zema {

/// Runs, in order, work that the receive callback must not do itself because it may wait for the manager.
/// The thread of its own ("IOServiceThread") starts with the first piece of work.
///
/// Threads: any thread may call Post; the owner calls Stop.
class IOService {
 public:
  IOService();
  ~IOService();
  IOService(const IOService&) = delete;
  IOService& operator=(const IOService&) = delete;

  /// How many pieces of work may wait while the manager does not take messages.
  static constexpr size_t kMostWaiting = 1000;

  /// Queues the work.  It is destroyed without running after Stop and, with a log line, while kMostWaiting
  /// pieces wait.
  void Post(std::function<void()> work);

  /// Returns once the piece of work that is running has finished; the rest is not run.
  void Stop();

 private:
  std::mutex mutex_;  // guards what follows
  std::unique_ptr<TaskThread> thread_;
  bool stopped_ = false;
};

}  // namespace zem::zema
