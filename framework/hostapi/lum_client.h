#pragma once

#include <atomic>
#include <boost/intrusive_ptr.hpp>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "framework/hostapi/lum_link.h"
#include "framework/process/script_child.h"
#include "platform/core/long_mutex.h"
#include "platform/core/stop_signal.h"

namespace zem {
class AsioZemProvider;
class Timer;
class WorkGroup;
}  // namespace zem

namespace zem::Tarvik {

class ScriptOutput;

/// Owns the python process that has the host's management API, and the links to it: ends an earlier process,
/// starts the script, connects the links; when a link fails, does it all again, for as long as it takes.
///
/// Threads: all operations from any thread.  Only `Stop` waits: for the sequence that is running, which it
/// ends.
class LumClient : public RefCounted<LumClient, IRefCountable> {
 public:
  struct Settings {
    std::string script = "/usr/lib64/orlane/zem-tarvik/pylum/zemLum.py";
    /// The name by which the script's process is listed.
    std::string process_name = "zem-lum";
  };
  using LinkStatus = std::pair<std::string, int>;

  /// The numbers appear in the log.
  enum class State {
    kStarting = 1,       // from the first look for an earlier process until the links are connected
    kRunning = 2,        // until a link fails
    kHandlingError = 3,  // links are closed; the reset follows a second later
    kStopped = 4,        // no process, no connection: before a start, and between the halves of a reset
  };

  /// The work group, which runs the sequences, and the provider outlive the client.
  LumClient(AsioZemProvider& provider, boost::intrusive_ptr<WorkGroup> work_group, Settings settings);
  LumClient(AsioZemProvider& provider, boost::intrusive_ptr<WorkGroup> work_group);
  ~LumClient() override;
  LumClient(const LumClient&) = delete;
  LumClient& operator=(const LumClient&) = delete;

  /// Ends all processes of the script's name.  Returns true when a look finds none any more.
  [[nodiscard]] virtual bool TerminateLumPy();
  [[nodiscard]] virtual bool SpawnLumPy();
  /// Looks for the script's process for ten seconds.
  virtual bool GetZemLumPid();

  /// The client of this process; null until one is installed.
  static boost::intrusive_ptr<LumClient> Instance();
  static void Install(boost::intrusive_ptr<LumClient> client);

  /// A link is connected with the next start of the script.  It takes the place of a link of the same path.
  void Register(const boost::intrusive_ptr<LumLink>& link);
  void Unregister(const std::string& path);
  void Start();
  /// For good.  Returns when the script's process is gone, or could not be ended within seconds.
  void Stop();
  /// Appends path and status of each link, in order of the paths.
  void GetLinkStatus(std::vector<LinkStatus>* list) const;
  State state() const;

 private:
  using Links = std::vector<boost::intrusive_ptr<LumLink>>;

  bool StartSequence();
  void StopSequence();
  void Reset();
  void LinkErrorHandle(LumLink* link);
  void HandleErrorTimer();
  void LinkErrorHandleInt();
  bool OpenLumLink();
  void CloseLumLink();
  Links links() const;
  bool AllUp() const;
  void SetState(State state);
  /// Sets `state` only when the state is `from`.
  void Advance(State from, State state);
  void Enqueue(std::function<void()> function);
  /// Sleeps; returns false when the client is stopping and so nothing more is to be done.
  bool Pause(Duration duration);
  bool Going() const { return last_ || !stop_.stopped(); }
  /// Returns what a shell command has printed; nothing when it could not be run to its end.
  std::optional<std::string> Shell(const std::string& command) const;

  AsioZemProvider& provider_;
  const boost::intrusive_ptr<WorkGroup> work_group_;
  const Settings settings_;
  StopSignal stop_;
  std::atomic<bool> last_{false};  // the stop's own sequence runs, which nothing ends

  LongMutex sequence_mutex_;  // held over a start, stop or reset; guards child_ and output_
  ScriptChild child_;
  std::unique_ptr<ScriptOutput> output_;

  mutable std::mutex
      state_mutex_;  // guards all below; after sequence_mutex_, no other lock is taken under it
  State state_ = State::kStopped;
  std::map<std::string, boost::intrusive_ptr<LumLink>> links_;
  std::shared_ptr<Timer> error_timer_;
  bool reset_waits_ = false;  // for the sequence that is running; one is enough
};

}  // namespace zem::Tarvik
