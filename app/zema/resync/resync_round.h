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
class ResyncState;
class VifHandler;

/// One comparison of the host with its ports: runs the script that makes it, and carries out what it prints
/// as operations on VIFs.  What the host itself asked for meanwhile is newer and stands.
///
/// Threads: one.
class ResyncRound {
 public:
  static constexpr const char* kScript = "/usr/lib64/orlane/zem-tarvik/pylum/zema/resync.py";

  /// All set; what is pointed at outlives the round.
  struct Settings {
    HealthRecord* health = nullptr;
    HostIdentity* host = nullptr;
    ResyncState* state = nullptr;
    VifHandler* vif_handler = nullptr;
    /// Runs a shell command for so long at most: its exit code, or -1 with the reason.
    std::function<int(const std::string& command, Duration limit, std::string* output, std::string* error)>
        shell;
    /// False as soon as the round has to end.
    std::function<bool()> may_go_on;
  };

  explicit ResyncRound(Settings settings) : settings_(std::move(settings)) {}

  /// `interval` in seconds: how far back the look at the VMs goes.  `limit`: for the script.
  void Resync(int interval, bool vm_check, Duration limit);

 private:
  using Commands = std::vector<ResyncCommand>;

  bool RunScript(const std::string& command, Duration limit, std::string* reply);
  bool MayGoOn();
  bool Overtaken(const ResyncCommand& command);
  bool Sort(const ResyncReply& reply, Commands* attachments, Commands* detachments);
  void SyncVnicDetachment(const Commands& detachments);
  void SyncVnicAttachment(const Commands& attachments);
  template <class Report>
  void Sync(const Commands& commands, const char* name, int kind, const Report& report);

  const Settings settings_;
};

}  // namespace zem::zema
