#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/core/clock.h"

namespace orlane::zem::switching {
class VifAttachmentMsg;
class VifMsg;
}  // namespace orlane::zem::switching

namespace zem::sim {

/// Where the manager has a VIF attached.
struct VifPlace {
  std::string vif;
  std::string ls;
  std::string port;
  std::string zone;
  std::string host;
  std::string path;
  /// What the host reported about it: "key=value" of its site configuration, the state of a restore.
  std::map<std::string, std::string> site_config;
  std::string restored;
};

/// How requests of one VIF, or of all, are answered in place of the table's answer.
struct VifRule {
  enum class Kind {
    kServe,        // by the table; useful with a delay
    kSilent,       // the request has no effect and gets no answer
    kLost,         // the request takes effect, but its answer is lost
    kError,        // refused with `text`
    kEmptyPort,    // an attach takes effect, but its answer names no port
    kNothing,      // a detach takes effect; its answer names neither port nor VIF nor path
    kPort,         // a detach takes effect; its answer names only the port
    kPortAndPath,  // a detach leaves the VIF where it is; the answer names port and path
  };
  enum class Of { kAny, kAttach, kDetach };

  Kind kind = Kind::kServe;
  Of of = Of::kAny;
  std::string text;
  Duration delay{};
  /// Number of requests that the rule applies to; negative: all.
  int count = -1;
};

/// A message about a VIF that a host has sent, and its outcome.
struct VifRecord {
  uint64_t number = 0;
  int64_t at_us = 0;
  uint32_t operation = 0;
  std::string rpc_id;
  std::string vif;
  std::string ls;
  std::string port;
  std::string host;
  std::string path;
  std::string state;
  std::string error;
  std::map<std::string, std::string> site_config;
  /// "port PORT", "old LS/PORT" and the like; "silence" when no answer is sent.
  std::string answer;
};

/// What the manager knows of VIFs: the zone of each logical switch, where each VIF is attached, and which
/// port it had on each switch before.  It answers the requests of hosts from this, at once unless a rule says
/// otherwise, and records the requests.
///
/// A VIF that returns to a switch gets its previous port there.  The answer to a detach from a place where
/// the VIF no longer is names nothing; a detach with a path other than the one the manager knows leaves the
/// VIF attached, and the answer names the known path.
///
/// Threads: all operations from any thread.
class VifTable {
 public:
  struct Answer {
    /// Null: the request gets no answer.
    std::unique_ptr<orlane::zem::switching::VifMsg> message;
    Duration delay{};
  };

  VifTable();
  ~VifTable();

  /// The table answers requests once the first switch has been added.
  bool serves() const;
  void AddSwitch(const std::string& ls, const std::string& zone);
  /// Returns false when the switch is not in the table.
  bool RemoveSwitch(const std::string& ls);

  /// Handles a request of a host.
  Answer Ask(const orlane::zem::switching::VifMsg& request);

  /// An empty `vif` sets the rule for all VIFs that have none of their own.
  void SetRule(const std::string& vif, VifRule rule);
  void ClearRules();
  /// Sets what the answer to an attach contains besides, a VifAttachmentMsg in text format; an empty text
  /// ends it.  `vif` as above.  Returns what is wrong with the text, or an empty text.
  std::string SetExtras(const std::string& vif, const std::string& text);

  /// Attaches a VIF without a request of a host; an empty port makes a new one.
  VifPlace Place(VifPlace place);
  /// Detaches the VIF on the manager's own behalf.  Returns the request for the host; null when the VIF is
  /// not attached.
  std::unique_ptr<orlane::zem::switching::VifMsg> TakeOff(const std::string& vif);
  /// Returns the request to restore the VIF's port, whose result repeats `state`; null when the VIF is not
  /// attached.
  std::unique_ptr<orlane::zem::switching::VifMsg> AskRestore(const std::string& vif,
                                                             const std::string& state);

  std::optional<VifPlace> Find(const std::string& vif) const;
  std::vector<VifPlace> Places() const;
  /// The zone of each switch.
  std::map<std::string, std::string> Switches() const;
  /// The messages of one VIF, or of all for an empty name.
  std::vector<VifRecord> Records(const std::string& vif, uint64_t after) const;

 private:
  using Vif = orlane::zem::switching::VifAttachmentMsg;

  VifRule TakeRuleLocked(const std::string& vif, VifRule::Of of);
  void AttachLocked(const Vif& asked, const VifRule& rule, Vif* answer, VifRecord* record);
  void DetachLocked(const Vif& asked, const VifRule& rule, Vif* answer, VifRecord* record);
  const std::string& PortLocked(const std::string& vif, const std::string& ls, const std::string& hint);
  void TakeReportLocked(const Vif& asked, uint32_t operation);
  void AddExtrasLocked(const std::string& vif, Vif* answer) const;

  mutable std::mutex mutex_;  // guards all below
  std::map<std::string, std::string> switches_;
  std::map<std::string, VifPlace> places_;
  std::map<std::pair<std::string, std::string>, std::string> ports_;  // by VIF and switch
  std::map<std::string, std::string> owners_;                         // VIF by port
  std::map<std::string, VifRule> rules_;
  std::map<std::string, std::unique_ptr<Vif>> extras_;
  std::deque<VifRecord> records_;
  uint64_t last_number_ = 0;
  uint64_t restores_ = 0;
};

}  // namespace zem::sim
