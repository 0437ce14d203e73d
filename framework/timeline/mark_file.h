#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/core/unique_fd.h"
#include "platform/timeline/operation.h"

namespace zem::timeline {
class MarkTable;
}

namespace zem::Tarvik {

/// The file in which the operations under way are marked, mapped into the process (timeline::MarkTable): it
/// outlives a process that is killed, and the next one reads what was interrupted.  It belongs into a file
/// system in memory, where nobody waits for a disk; it does not outlive the machine.
///
/// Each life has a file of its own, closed to other users and with its space reserved.  The mapping stays
/// until the last operation that it marks is gone.  Root who truncates the file while the daemon runs ends
/// the daemon (SIGBUS); whoever removes it costs the marks alone. Errors: what is in its place and cannot be
/// such a file of this user is left alone; whatever fails is logged once, and operations go unmarked.
/// Threads: one owner; Alive from any.
class MarkFile {
 public:
  /// Reads what the life before has left.
  explicit MarkFile(std::string path);
  /// An orderly end: nothing was interrupted, and the file goes.
  ~MarkFile();
  MarkFile(const MarkFile&) = delete;
  MarkFile& operator=(const MarkFile&) = delete;

  /// In the order in which they began.
  const std::vector<timeline::OperationReading>& interrupted() const { return interrupted_; }

  /// Puts an empty file in its place, in which operations are marked from now on.
  void BeginAnew();

  /// The process lives; to be called about once a second.
  void Alive();

 private:
  /// False when its place has to be left alone.
  bool ReadBefore();
  /// Returns why it could not be made; empty when it was.
  std::string Make();

  const std::string path_;
  std::vector<timeline::OperationReading> interrupted_;
  bool usable_ = false;
  UniqueFd file_;  // with the lock that tells other daemons that it is in use
  std::shared_ptr<timeline::MarkTable> table_;
};

}  // namespace zem::Tarvik
