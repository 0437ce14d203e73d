#pragma once

#include <map>
#include <optional>
#include <string>

#include "framework/tasks/synchronizable.h"

namespace zem::zema {

/// What the handlers and the resync know of each other: while a round runs, the host's own operations are
/// noted, and the round leaves their VIFs alone, because the host's event is newer than what the round saw.
///
/// Threads: all operations from any.
class ResyncState {
 public:
  static constexpr const char* kAttach = "attach";
  static constexpr const char* kDetach = "detach";

  void Begin();
  /// Forgets what was noted.
  void End();
  bool InProgress();

  /// Notes the host's operation; nothing unless a round runs.  `operation`: one of the two above.
  void Note(const std::string& ls, const std::string& vif, const char* operation);
  /// What the host asked of the VIF in this round.
  std::optional<std::string> Noted(const std::string& ls, const std::string& vif);

 private:
  Synchronizable lock_;  // guards what follows
  bool in_progress_ = false;
  std::map<std::string, std::string> record_;
};

}  // namespace zem::zema
