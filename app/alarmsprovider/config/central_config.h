#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace zem {
class AsioZemProvider;
}

namespace zem::Tarvik {

/// Hands the node's central configuration to the node's own script, unless an operator has put a local
/// override in place.  When the override goes, the script runs once more.
///
/// Threads: all operations from any thread; the script runs on the provider, which should be one that nothing
/// urgent waits for.
/// Limits: a script may run for 300 s.  While one runs only the latest text waits.
class CentralConfig : public std::enable_shared_from_this<CentralConfig> {
 public:
  struct Paths {
    std::string script = "/opt/orlane/zem-tarvik/libexec/zem-central-node-config-update";
    std::string override_file = "/etc/orlane/central_config_local_override";
  };

  CentralConfig(AsioZemProvider& provider, Paths paths);

  void Set(const std::string& text);
  /// To be called from time to time.
  void CheckOverride();
  /// Ends a script that runs; none starts afterwards.
  void Stop();

 private:
  bool OverridePresent() const;
  void ScheduleScript(std::string text);
  void RunScripts();
  void RunScript(const std::string& text);

  AsioZemProvider& provider_;
  const Paths paths_;
  std::atomic<bool> stopped_ = false;

  std::mutex mutex_;  // guards what follows
  std::string last_text_;
  bool override_present_;
  bool scheduled_ = false;  // the provider has a call of RunScripts to make
  std::string next_text_;   // for the script; empty: nothing to run
};

}  // namespace zem::Tarvik
