#pragma once

#include <memory>

namespace zem::Tarvik {

/// The process: starts everything in one fixed order and stops it in about the reverse order.
///
/// Threads: `Start`, `Serve` and `Stop` by the main thread, in this order; `Interrupt` from any.
class Agent {
 public:
  /// What tests change; the defaults are those of the daemon.
  struct Settings {
    const char* options_path;
    /// Whether SIGTERM and SIGINT end the process once it serves.
    bool handle_signals = true;
    Settings();
  };

  explicit Agent(Settings settings = {});
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  /// Returns 0, or -1 when one of the early phases fails; the reason is written to standard output and
  /// logged.
  [[nodiscard]] int Start();

  /// Runs the event loop on the calling thread until it is stopped.
  void Serve();

  /// Stops in order.  Steps of what was not started are left out.
  void Stop();

  /// Makes `Serve` return.
  void Interrupt();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zem::Tarvik
