#pragma once

#include "app/zema/resync/resync_gate.h"
#include "app/zema/resync/resync_round.h"
#include "framework/tasks/thread.h"

namespace zem::zema {

struct RealizationOptions;

/// Reports to the manager which VIFs were attached or detached on the host while the manager or the agent was
/// away.  It works in rounds, an interval apart.  When the manager reconnects, a round follows at once, and
/// others after 4, 8, 16 ... seconds until the interval is reached.
///
/// Threads: its own; all operations but those of Thread from any.
class ResyncThread final : public Thread {
 public:
  static constexpr int kDefaultInterval = 3600;  // seconds

  using Settings = ResyncSettings;

  /// All but `command` set; what is pointed at, and `vif_handler`, outlive the thread.
  ResyncThread(Settings settings, VifHandler& vif_handler);
  ~ResyncThread() override;

  void Run() override;
  /// Ends the script and every wait, except an operation's wait for the manager, which the VIF handler ends.
  void Stop() override;

  /// Returns false on a host with simulated load, where there is nothing to compare with the host.
  bool Wanted() const;

  /// Forbids rounds while the host's switches change.  A round that was due meanwhile follows afterwards.
  void Allow(bool allowed);

 private:
  bool AwaitHostId();
  bool AwaitPipe();
  int Round();
  void Compare(const RealizationOptions& options, int interval);
  int NextSleep(int interval);
  void WaitBeforeNextCheck(int seconds);

  const Settings settings_;
  ResyncGate gate_;
  ResyncRound round_;
  int rounds_ = 0;  // since the last look at the VMs
  int fast_resync_interval_ = -1;
};

}  // namespace zem::zema
