#pragma once

#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/rpc/stream/flush_scope.h"

namespace boost::asio {
class io_context;
}

namespace zem::rpc {

/// Runs functions one after the other on a loop's threads, in order of posting.  One that throws is logged.
///
/// Of our own because it must outlive its loop: a stub may be dropped after its provider has gone.
///
/// Threads: all operations from any thread.
class Strand : public std::enable_shared_from_this<Strand> {
 public:
  explicit Strand(boost::asio::io_context& io) : io_(&io) {}

  void Post(std::function<void()> function);

  /// Runs `function` here and now when the strand is free, else later; by a thread of the loop.
  template <class Function>
  void Dispatch(Function&& function) {
    if (!Enter()) {
      Post(std::forward<Function>(function));
      return;
    }
    try {
      const FlushScope scope;
      function();
    } catch (const std::exception& error) {
      LogThrown(error);
    }
    Drain();
  }

  /// The loop has ended; what is posted from now on is dropped.
  void Detach();

 private:
  bool Enter();
  void Drain();
  void PostDrain();
  static void LogThrown(const std::exception& error);

  std::mutex mutex_;  // guards all below
  boost::asio::io_context* io_;
  std::deque<std::function<void()>> queue_;
  bool running_ = false;  // a thread drains the queue or is about to
};

}  // namespace zem::rpc
