#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "app/zema/resync/resync_round.h"
#include "app/zema/state/realization_options.h"
#include "framework/tasks/thread.h"
#include "platform/core/clock.h"
#include "platform/core/unique_fd.h"

namespace zem::zema {

/// Brings the manager up to date about VIFs that came or went on the host while it was away, or the agent:
/// in rounds, an interval apart.  When the manager comes again there is a round at once, and others after 4,
/// 8, 16 ... seconds until the interval is reached.
///
/// Threads: its own; all operations but those of Thread from any.
class ResyncThread final : public Thread {
 public:
  static constexpr int kDefaultInterval = 3600;  // seconds

  struct Settings {
    HealthRecord* health = nullptr;
    HostIdentity* host = nullptr;
    ResyncState* state = nullptr;
    std::function<RealizationOptions()> options;
    /// A script takes no longer than this, or than the interval where that is longer.
    Duration script_limit = std::chrono::minutes(10);
    /// Runs the rounds' commands in the place of the shell, for a test; else empty.
    std::function<int(const std::string& command, std::string* output)> command;
    /// At the beginning of each round: what is known of the ports is read again.
    std::function<void()> read_ports = [] {};
  };

  /// All but `command` set; what is pointed at, and `vif_handler`, outlive the thread.
  ResyncThread(Settings settings, VifHandler& vif_handler);
  ~ResyncThread() override;

  void Run() override;
  /// Ends a script and every wait but an operation's for the manager, which the VIF handler ends.
  void Stop() override;

  /// False on a host whose load is simulated: nothing there is the host's own.
  bool Wanted() const;

  /// False while the host's switches change.  A round that did not take place for it does so afterwards.
  void Allow(bool allowed);

 private:
  bool AwaitHostId();
  bool AwaitPipe();
  bool OpenPipe();
  void ClosePipe();
  int Round();
  void Compare(const RealizationOptions& options, int interval);
  int NextSleep(int interval);
  void WaitBeforeNextCheck(int seconds);
  bool WaitForStop(Duration duration);
  bool MayGoOn();
  bool stopped();
  int Shell(const std::string& command, Duration limit, std::string* output, std::string* error);

  const Settings settings_;
  UniqueFd stop_event_;
  ResyncRound round_;
  // The own thread's.
  UniqueFd read_end_;
  int rounds_ = 0;  // since the last look at the VMs
  int fast_resync_interval_ = -1;

  std::mutex mutex_;    // guards what follows
  UniqueFd write_end_;  // the other one is the health record's
  bool stopped_ = false;
  bool allowed_ = true;
  bool missed_ = false;  // something was left out because it was not allowed
};

}  // namespace zem::zema
