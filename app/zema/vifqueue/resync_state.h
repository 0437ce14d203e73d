#pragma once

#include <map>
#include <optional>
#include <string>

#include "framework/tasks/synchronizable.h"

namespace zem::zema {

/// Shared by the port handlers and the resync.  While a resync round runs, the host's own operations are
/// recorded here, and the round leaves their VIFs alone, because the host's event is newer than what the
/// round saw.
///
/// Threads: all operations from any.
class ResyncState {
 public:
  static constexpr const char* kAttach = "attach";
  static constexpr const char* kDetach = "detach";

  void Begin();
  /// Clears the record.
  void End();
  bool InProgress();

  /// Records the host's operation, kAttach or kDetach, while a round runs; otherwise does nothing.
  void Note(const std::string& ls, const std::string& vif, const char* operation);
  /// Returns the host's last operation on the VIF in this round, or nothing.
  std::optional<std::string> Noted(const std::string& ls, const std::string& vif);

 private:
  Synchronizable lock_;  // guards what follows
  bool in_progress_ = false;
  std::map<std::string, std::string> record_;
};

}  // namespace zem::zema
