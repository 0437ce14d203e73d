#pragma once

#include <memory>

namespace zem::Tarvik {

/// The process: everything that `main` builds, in one fixed order, and takes down in about the reverse one.
///
/// Threads: `Start`, `Serve` and `Stop` by the main thread, in this order; `Interrupt` from any.
class Agent {
 public:
  /// What a test changes; the defaults are the product.
  struct Settings {
    const char* options_path;
    /// Ends the process on SIGTERM and SIGINT once it serves.
    bool handle_signals = true;
    Settings();
  };

  explicit Agent(Settings settings = {});
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  /// 0, or -1 when one of the early phases failed; what failed is told on standard output and in the log.
  [[nodiscard]] int Start();

  /// Gives the calling thread to the event loop; returns when the loop has been stopped.
  void Serve();

  /// The orderly stop.  Steps of what was never started are left out.
  void Stop();

  /// Makes `Serve` return.
  void Interrupt();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zem::Tarvik
