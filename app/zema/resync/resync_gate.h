#pragma once

#include <mutex>

#include "platform/core/clock.h"
#include "platform/core/unique_fd.h"

namespace zem::zema {

class HealthRecord;
class OptionsStore;

/// Says whether the resync may run, and wakes its thread: for its end, for the manager that has come again,
/// and for a round that was forbidden when it was due.
///
/// Threads: Stop, Allow, stopped and MayGoOn from any; the others from the resync's own thread.
class ResyncGate {
 public:
  /// `options` has to outlive the gate.
  explicit ResyncGate(OptionsStore& options);

  /// Ends every wait, and the script that runs.
  void Stop();
  bool stopped();

  /// False while the host's switches change.  A round that was due meanwhile follows when it is true again.
  void Allow(bool allowed);
  /// False when a round has to end or must not begin: at the stop, while it is not allowed, or while the
  /// options disable the resync.
  bool MayGoOn();

  /// Opens the pipe by which the thread is woken, and gives one end of it to the health record, which writes
  /// when the manager comes.  Returns false, with an error line, without descriptors.
  [[nodiscard]] bool OpenPipe(HealthRecord& health);
  void ClosePipe(HealthRecord& health);

  enum class Wake {
    /// The time is over, or the stop has come.
    kTime,
    kManagerCame,
    kAllowedAgain,
    /// The wait itself failed, which is logged.
    kFailed,
  };
  /// Waits on the pipe for so long at most.
  Wake WaitFor(Duration duration);
  /// Waits for the stop alone; returns whether it has come.
  bool WaitForStop(Duration duration);
  /// Readable from the stop on.
  int stop_fd() const { return stop_event_.get(); }

 private:
  OptionsStore& options_;
  UniqueFd stop_event_;
  UniqueFd read_end_;  // the own thread's

  std::mutex mutex_;    // guards what follows
  UniqueFd write_end_;  // the other one is the health record's
  bool stopped_ = false;
  bool allowed_ = true;
  bool missed_ = false;  // something was left out because it was not allowed
};

}  // namespace zem::zema
