#pragma once

#include <functional>
#include <memory>
#include <mutex>

namespace zem {
class TaskThread;
}  // namespace zem

namespace zem::zema {

/// Runs what must leave the receive callback at once and yet may wait for the manager, in order, on a thread
/// of its own ("IOServiceThread") that comes with the first piece of work.
///
/// Threads: Post from any; Stop by the owner.
class IOService {
 public:
  IOService();
  ~IOService();
  IOService(const IOService&) = delete;
  IOService& operator=(const IOService&) = delete;

  /// What the receive callback hands over while the manager does not take messages.
  static constexpr size_t kMostWaiting = 1000;

  /// The work is destroyed unrun after Stop, and, with a line, while kMostWaiting pieces wait.
  void Post(std::function<void()> work);

  /// Ends after the piece that runs at that moment.
  void Stop();

 private:
  std::mutex mutex_;  // guards what follows
  std::unique_ptr<TaskThread> thread_;
  bool stopped_ = false;
};

}  // namespace zem::zema
