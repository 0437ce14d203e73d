#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "app/zema/proxy/lum_commands.h"
#include "framework/process/script_child.h"
#include "framework/tasks/synchronizable.h"
#include "platform/core/clock.h"
#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"

namespace zem::zema {

/// Options with which the script is started.
struct LumOptions {
  /// How often the handler tries to find the child's process id (`lum.maxRetryZemaLumReady`).
  int pid_tries = 60;
  /// `zema.logLevel`; "info", "unset" and nothing keep the script's own level.
  std::string log_level = "info";
  bool no_vxlan_stack = false;
};

/// What the handler needs from the rest of the agent, and what tests change.
struct LumSettings {
  std::string script = "/usr/lib64/orlane/zem-tarvik/pylum/zema/zemaLum.py";
  std::string socket = "/etc/orlane/zemaLum";
  std::string error_file = "/var/log/zemaLum.err";
  std::string kill_log = "/var/log/zemaLum.ps";
  std::string process_name = "zemaLum_py";

  Duration kill_pause = std::chrono::milliseconds(500);
  /// The longest wait of one try.
  Duration pid_pause = std::chrono::seconds(2);
  Duration ready_pause = std::chrono::seconds(1);
  /// The wait after the first failed start; doubled after each further failure.
  Duration respawn_pause = std::chrono::seconds(1);

  std::string host_version;

  /// Called at each start of the script.
  std::function<LumOptions()> options = [] { return LumOptions(); };
  std::function<bool()> shutting_down = [] { return false; };
  /// Called at each change of readiness; the health record keeps the value.
  std::function<void(bool)> set_ready = [](bool) {};
};

/// Access to the host's management API: owns the script that calls the API and the socket to that script.
///
/// All calls are serial under the object's own lock, from the first byte out to the last byte in, and a new
/// start of the script, which may take minutes, runs under it as well.  Nothing here may be called from a
/// provider's thread.
///
/// Errors: a command never throws and never ends the process; `out` has the error.  A socket failure closes
/// the socket and reports that the script is not ready.  The script is started again by the next text
/// command, immediately by a binary call, or by the handler itself while it watches.
class LumHandler : public Synchronizable, public LumCommands {
 public:
  explicit LumHandler(LumSettings settings);
  ~LumHandler() override;
  LumHandler(const LumHandler&) = delete;
  LumHandler& operator=(const LumHandler&) = delete;

  /// Starts the script and logs in as `user`.  Returns 0 or -1.
  [[nodiscard]] int SetUp(std::string user, std::string third);

  /// From now on the handler itself notices when the script has ended and starts it again until the start
  /// succeeds.  Called once, by the owner.
  void StartWatching();

  int InvokeCommand(const std::string& command, const std::string& expected, std::string* out) override;
  int InvokeRPC(LumOperation operation, std::string_view data, std::string* out) override;

  /// Does not wait for a running call, which it ends.  The script is not started again.
  void TerminateZemaLumPy();

  /// For the calling thread, or for a test while no other thread makes a call.
  bool connected() const { return child_.socket() >= 0; }
  /// The script's process id; empty while unknown.
  std::string pid() const { return child_.pid(); }

 protected:
  virtual int InvokeRPCInternal(LumOperation operation, std::string_view data, std::string* out);
  virtual int InvokeCommandInternal(const std::string& command, const std::string& expected,
                                    std::string* out);

 private:
  enum class Sent { kWhole, kNoHeader, kNoData };

  int CallRpc(LumOperation operation, std::string_view data, std::string* out);

  int SpawnPyLumInternal();
  bool KillPrior();
  bool Spawn();
  bool FindPid();
  bool Connect();
  int Login();
  int WaitReady();
  /// Makes one exchange on the open socket and never starts the script; the start itself uses it.
  int Ask(const std::string& command, const std::string& expected, std::string* out);
  Sent Send(LumOperation operation, std::string_view data);
  /// Returns false when no whole reply arrived.
  bool GetLine(uint32_t* status, std::string* out);
  bool ReadWhole(void* buffer, size_t length);
  /// Closes the socket and reports that the script is not ready.
  void Lose();
  void SetReady(bool ready);
  /// Returns false when the daemon or the watching is stopping.
  bool Pause(Duration duration) const;
  /// Checks `there` repeatedly for at most `duration`.
  bool LookFor(Duration duration, const std::function<bool()>& there) const;
  void Watch();
  void EndWatching();

  const LumSettings settings_;
  std::string user_;
  std::string third_;
  Tarvik::ScriptChild child_;
  LumOptions options_;         // of the last start
  std::optional<bool> ready_;  // what was reported last
  StopSignal watching_ends_;
  NativeThread watcher_;
};

}  // namespace zem::zema
