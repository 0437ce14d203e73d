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

/// What the resync works with; what is pointed at outlives it.
struct ResyncSettings {
  HealthRecord* health = nullptr;
  HostIdentity* host = nullptr;
  ResyncState* state = nullptr;
  OptionsStore* options = nullptr;
  /// Read again at the beginning of each round.
  VifHolders* ports = nullptr;
  /// A script takes no longer than this, or than the interval where that is longer.
  Duration script_limit = std::chrono::minutes(10);
  /// Runs the rounds' commands in place of the shell, for a test; else empty.
  std::function<int(const std::string& command, std::string* output)> command;
};

/// One comparison of the host with its ports: runs the script that makes it, and carries out what it prints
/// as operations on VIFs.  What the host itself asked for meanwhile is newer and stands.
///
/// Threads: one.
class ResyncRound {
 public:
  static constexpr const char* kScript = "/usr/lib64/orlane/zem-tarvik/pylum/zema/resync.py";

  /// All arguments have to outlive the round.  It ends as soon as `gate` forbids it to go on.
  ResyncRound(const ResyncSettings& settings, VifHandler& vif_handler, ResyncGate& gate)
      : settings_(settings), vif_handler_(vif_handler), gate_(gate) {}

  /// `interval` in seconds: how far back the look at the VMs goes.  `limit`: for the script.
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
