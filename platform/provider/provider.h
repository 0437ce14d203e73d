#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace boost::asio {
class io_context;
}

namespace zem {

class Dispatcher;
class TimerFactory;
namespace metrics {
class Registry;
}
namespace rpc {
class Transport;
}

/// The event loop: timers, posted functions, and the RPC library's sockets and callbacks run on its threads.
///
/// A function that throws is logged with the exception's text; the loop goes on.
/// Threads: all operations from any thread, `StopAndWait` from any but its own (there it only stops, and
/// logs).
class AsioZemProvider {
 public:
  /// `options` may hold `provider.stop_on_signals` (default true): SIGINT and SIGTERM then stop the loop.
  AsioZemProvider(const boost::property_tree::ptree& options, const std::string& name);
  AsioZemProvider();
  ~AsioZemProvider();
  AsioZemProvider(const AsioZemProvider&) = delete;
  AsioZemProvider& operator=(const AsioZemProvider&) = delete;

  /// Gives the calling thread and `threads - 1` more to the loop until it stops.
  void Run(int threads);

  /// Gives `threads` new threads to the loop and returns.
  void RunAsync(int threads);

  /// Ends the loop once what is running has returned.
  void Stop();

  /// Shuts the RPC transport down, lets what is posted run when `run_posted`, ends the loop and joins its
  /// threads.
  void StopAndWait(bool run_posted);

  bool stopped() const;

  /// True on one of the loop's threads.
  bool RunsOnThisThread() const;

  /// The RPC transport of this provider, made at first use.  Defined by the RPC library.
  rpc::Transport& rpc();
  metrics::Registry& metrics();
  TimerFactory& timers();
  Dispatcher& dispatcher();
  boost::asio::io_context& io();
  const std::string& name() const;

  /// What another library keeps with this provider (the RPC transport): destroyed before the loop, after
  /// `stop` has run at the start of `Stop` and `StopAndWait`.
  struct Attachment {
    std::shared_ptr<void> object;
    std::function<void()> stop;
  };
  /// Makes the attachment at first use, under a lock.
  std::shared_ptr<void> Attach(const std::function<Attachment()>& make);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zem
