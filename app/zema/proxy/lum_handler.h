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

/// What the script is started with.
struct LumOptions {
  /// Tries to find the child's process id (`lum.maxRetryZemaLumReady`).
  int pid_tries = 60;
  /// `zema.logLevel`; "info", "unset" and nothing keep the script's own level.
  std::string log_level = "info";
  bool no_vxlan_stack = false;
};

/// What the handler needs of the rest, and what tests change.
struct LumSettings {
  std::string script = "/usr/lib64/orlane/zem-tarvik/pylum/zema/zemaLum.py";
  std::string socket = "/etc/orlane/zemaLum";
  std::string error_file = "/var/log/zemaLum.err";
  std::string kill_log = "/var/log/zemaLum.ps";
  std::string process_name = "zemaLum_py";

  Duration kill_pause = std::chrono::milliseconds(500);
  /// How long one try waits for what it looks for, at most.
  Duration pid_pause = std::chrono::seconds(2);
  Duration ready_pause = std::chrono::seconds(1);
  /// The first wait between starts that fail; doubled each time.
  Duration respawn_pause = std::chrono::seconds(1);

  std::string host_version;

  /// Asked at each start of the script.
  std::function<LumOptions()> options = [] { return LumOptions(); };
  std::function<bool()> shutting_down = [] { return false; };
  /// Called at each change; the health record keeps the value.
  std::function<void(bool)> set_ready = [](bool) {};
};

/// The host's management API: owns the script that speaks to it and the socket to that script.
///
/// All calls are serial under the object's own lock, from the first byte out to the last byte in, and a new
/// start of the script, which may take minutes, runs under it as well.  Nothing here may be called from a
/// provider's thread.
///
/// Errors: a command never throws and never ends the process; what went wrong is in `out`.  A socket failure
/// closes the socket and reports that the script is not ready; it is started again by the next text command,
/// at once by a binary call, or by the handler itself while it watches.
class LumHandler : public Synchronizable, public LumCommands {
 public:
  explicit LumHandler(LumSettings settings);
  ~LumHandler() override;
  LumHandler(const LumHandler&) = delete;
  LumHandler& operator=(const LumHandler&) = delete;

  /// Starts the script and logs in as `user`.  0, or -1.
  [[nodiscard]] int SetUp(std::string user, std::string third);

  /// From now on the handler notices by itself that the script has ended, and starts it again until that
  /// holds.  Once, by the owner.
  void StartWatching();

  int InvokeCommand(const std::string& command, const std::string& expected, std::string* out) override;
  int InvokeRPC(LumOperation operation, std::string_view data, std::string* out) override;

  /// Does not wait for a running call, which ends by it.  The script is not started again.
  void TerminateZemaLumPy();

  /// For the thread that calls, or a test: not while another one calls.
  bool connected() const { return child_.socket() >= 0; }
  /// The script's process id; empty while unknown.
  std::string pid() const { return child_.pid(); }

 protected:
  virtual int InvokeRPCInternal(LumOperation operation, std::string_view data, std::string* out);
  virtual int InvokeCommandInternal(const std::string& command, const std::string& expected,
                                    std::string* out);

 private:
  enum class Sent { kWhole, kNoHeader, kNoData };

  int SpawnPyLumInternal();
  bool KillPrior();
  bool Spawn();
  bool FindPid();
  bool Connect();
  int Login();
  int WaitReady();
  /// One exchange on the open socket, without any new start: what the start itself uses.
  int Ask(const std::string& command, const std::string& expected, std::string* out);
  Sent Send(LumOperation operation, std::string_view data);
  /// False when no whole reply came.
  bool GetLine(uint32_t* status, std::string* out);
  bool ReadWhole(void* buffer, size_t length);
  /// Closes the socket and reports that the script is not ready.
  void Lose();
  void SetReady(bool ready);
  /// False when the daemon, or the watching, is stopping.
  bool Pause(Duration duration) const;
  /// Looks again and again for so long.
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
