#pragma once

#include "app/zema/resync/resync_gate.h"
#include "app/zema/resync/resync_round.h"
#include "framework/tasks/thread.h"

namespace zem::zema {

struct RealizationOptions;

/// Brings the manager up to date about VIFs that came or went on the host while it was away, or the agent:
/// in rounds, an interval apart.  When the manager comes again there is a round at once, and others after 4,
/// 8, 16 ... seconds until the interval is reached.
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
  /// Ends a script and every wait but an operation's for the manager, which the VIF handler ends.
  void Stop() override;

  /// False on a host whose load is simulated: nothing there is the host's own.
  bool Wanted() const;

  /// False while the host's switches change.  A round that did not take place for it does so afterwards.
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
