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

/// Where the manager has a VIF.
struct VifPlace {
  std::string vif;
  std::string ls;
  std::string port;
  std::string zone;
  std::string host;
  std::string path;
  /// What the host told of it: "key=value" of its site configuration, the state of a restore.
  std::map<std::string, std::string> site_config;
  std::string restored;
};

/// How requests of one VIF, or of all, are answered other than by the table.
struct VifRule {
  enum class Kind {
    kServe,        // by the table; of use with a delay
    kSilent,       // neither taken nor answered
    kLost,         // taken, and the answer does not arrive
    kError,        // refused with `text`
    kEmptyPort,    // an attach: taken, and no port named
    kNothing,      // a detach: taken, and neither port nor VIF nor path named
    kPort,         // a detach: taken, and only the port named
    kPortAndPath,  // a detach: the VIF stays where it is, port and path named
  };
  enum class Of { kAny, kAttach, kDetach };

  Kind kind = Kind::kServe;
  Of of = Of::kAny;
  std::string text;
  Duration delay{};
  /// Requests it holds for; negative is without end.
  int count = -1;
};

/// A message about a VIF that a host has sent, and what came of it.
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
  /// "port PORT", "old LS/PORT" and the like; "silence" when nobody answers.
  std::string answer;
};

/// The manager's knowledge of VIFs: which logical switch is in which zone, where each VIF is attached, which
/// port it had on each switch before.  Answers a host's requests from it, at once unless a rule says
/// otherwise, and keeps what was asked.
///
/// A VIF that returns to a switch gets the port that it had there.  A detach of where the VIF no longer is
/// names nothing; one from a path that the manager does not know for it leaves the VIF attached and names the
/// path that it knows.
///
/// Threads: all operations from any thread.
class VifTable {
 public:
  struct Answer {
    /// Null: none.
    std::unique_ptr<orlane::zem::switching::VifMsg> message;
    Duration delay{};
  };

  VifTable();
  ~VifTable();

  /// From the first switch on the table answers; before it, nothing here does.
  bool serves() const;
  void AddSwitch(const std::string& ls, const std::string& zone);
  /// False when it is not there.
  bool RemoveSwitch(const std::string& ls);

  /// A host's request.
  Answer Ask(const orlane::zem::switching::VifMsg& request);

  /// `vif` empty: all that have none of their own.
  void SetRule(const std::string& vif, VifRule rule);
  void ClearRules();
  /// What the answer to an attach says besides, a VifAttachmentMsg in text format; empty ends it.  `vif` as
  /// above.  Gives what is wrong with the text.
  std::string SetExtras(const std::string& vif, const std::string& text);

  /// Attaches a VIF without a host's doing; an empty port makes one.
  VifPlace Place(VifPlace place);
  /// The manager itself takes the VIF off: the request for the host, null when it is not attached.
  std::unique_ptr<orlane::zem::switching::VifMsg> TakeOff(const std::string& vif);
  /// The request to restore the VIF's port, whose result repeats `state`; null when it is not attached.
  std::unique_ptr<orlane::zem::switching::VifMsg> AskRestore(const std::string& vif,
                                                             const std::string& state);

  std::optional<VifPlace> Find(const std::string& vif) const;
  std::vector<VifPlace> Places() const;
  /// Zones by switch.
  std::map<std::string, std::string> Switches() const;
  /// Of one VIF, or of all for an empty name.
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
