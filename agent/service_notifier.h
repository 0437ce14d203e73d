#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "platform/core/clock.h"
#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"

namespace zem {
class AsioZemProvider;
struct LoopReading;
}  // namespace zem

namespace zem::Tarvik {

/// Tells the service manager how the daemon is: the step of its start, that it serves, and, when the service
/// has a watchdog, every quarter of the watchdog's time that no loop hangs.  A loop hangs when one step of it
/// lasts half of that time; then nothing is told any more, the log names the loop and the step, and the
/// service manager starts the daemon anew.  Without a service manager nothing happens.
///
/// A thread of its own tells it, so that no loop has to work for another one's hang to be noticed.
///
/// Threads: all operations by the thread that starts and stops the agent.
class ServiceNotifier {
 public:
  ServiceNotifier();
  ~ServiceNotifier();
  ServiceNotifier(const ServiceNotifier&) = delete;
  ServiceNotifier& operator=(const ServiceNotifier&) = delete;

  /// Shows the step of the start that begins now.
  void Starting(const char* step);
  /// Shows why the start has ended, which stays to be seen until the next one.
  void NotStarted(std::string reason);
  /// The start is done.  From now on the watchdog is fed, for which `provider` has to run what is posted to
  /// it, until `Stopping`.
  void Serving(AsioZemProvider& provider);
  /// The provider does not run any more; loops are still watched.
  void Stopping();

  /// Describes the first loop of `loops` that promises to be prompt and has been in one step for `limit`;
  /// empty when there is none.
  static std::string HungLoop(std::span<const LoopReading> loops, Duration limit);

 private:
  void Feed();
  std::string WhatHangs();
  const char* Phase();
  void TellStatus(const std::string& text);

  const Duration watchdog_;  // zero: none
  std::mutex mutex_;         // guards provider_
  AsioZemProvider* provider_ = nullptr;
  uint64_t asked_ = 0;  // of the feeding thread
  // The number of the newest post that the provider has run.  Posts may outlive this object.
  const std::shared_ptr<std::atomic<uint64_t>> answered_ = std::make_shared<std::atomic<uint64_t>>(0);
  StopSignal stop_;
  NativeThread thread_;
};

}  // namespace zem::Tarvik
