#pragma once

#include <functional>
#include <string>
#include <vector>

#include "app/zema/resync/resync_reply.h"
#include "platform/core/clock.h"

namespace zem {
class HostIdentity;
}  // namespace zem

namespace zem::zema {

class HealthRecord;
class OptionsStore;
class ResyncGate;
class ResyncState;
class VifHandler;
class VifHolders;

/// What the resync works with.  The objects outlive it.
struct ResyncSettings {
  HealthRecord* health = nullptr;
  HostIdentity* host = nullptr;
  ResyncState* state = nullptr;
  OptionsStore* options = nullptr;
  /// Read again at the beginning of each round.
  VifHolders* ports = nullptr;
  /// The time limit of a script, unless the interval is longer.
  Duration script_limit = std::chrono::minutes(10);
  /// Runs the rounds' commands in place of the shell, for a test; else empty.
  std::function<int(const std::string& command, std::string* output)> command;
};

/// One comparison of the host with its ports: runs the script that makes it, and carries out what it prints
/// as operations on VIFs.  VIFs for which the host itself asked meanwhile are left alone.
///
/// Threads: one.
class ResyncRound {
 public:
  static constexpr const char* kScript = "/usr/lib64/orlane/zem-tarvik/pylum/zema/resync.py";

  /// All arguments have to outlive the round.  It ends as soon as `gate` forbids it to go on.
  ResyncRound(const ResyncSettings& settings, VifHandler& vif_handler, ResyncGate& gate)
      : settings_(settings), vif_handler_(vif_handler), gate_(gate) {}

  /// `interval` is how many seconds of VM history the script examines; `limit` is the script's time limit.
  void Resync(int interval, bool vm_check, Duration limit);

 private:
  using Commands = std::vector<ResyncCommand>;

  int Shell(const std::string& command, Duration limit, std::string* output, std::string* error);
  bool RunScript(const std::string& command, Duration limit, std::string* reply);
  bool MayGoOn();
  bool Overtaken(const ResyncCommand& command);
  bool Sort(const ResyncReply& reply, Commands* attachments, Commands* detachments);
  void SyncVnicDetachment(const Commands& detachments);
  void SyncVnicAttachment(const Commands& attachments);
  template <class Report>
  void Sync(const Commands& commands, const char* name, int kind, const Report& report);

  const ResyncSettings& settings_;
  VifHandler& vif_handler_;
  ResyncGate& gate_;
};

}  // namespace zem::zema
