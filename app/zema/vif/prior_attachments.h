#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "framework/tasks/synchronizable.h"

namespace zem::zema {

/// Where VIFs were attached before they moved, so that the move can be undone when the same operation on the
/// VM fails later.
///
/// Threads: all operations from any.
class PriorAttachments {
 public:
  struct Move {
    std::string old_ls;
    std::string new_ls;
    std::string old_zone;
    std::string old_port;
    /// The stem of the id of the operation on the VM that the move was part of.
    std::string op_id_stem;
  };

  /// Records that the VIF has left `move.old_ls`.
  void Note(const std::string& vif, const std::string& gcf_path, Move move);

  /// Returns nothing when the VIF has not moved.
  std::optional<Move> Find(const std::string& vif, const std::string& gcf_path);
  /// Finds the move and removes it from the table.
  std::optional<Move> Take(const std::string& vif, const std::string& gcf_path);

  /// Returns the port that the VIF had on `ls` when the same operation on the VM comes back to that switch;
  /// otherwise returns an empty text and removes the record of the other operation.
  std::string PortToReturnTo(const std::string& vif, const std::string& ls, const std::string& gcf_path,
                             const std::string& op_id_stem);

 private:
  // Entries of VMs that disappeared without a detach remain, so the oldest entries are dropped beyond this
  // number.
  static constexpr size_t kMost = 4096;

  struct Numbered {
    Move move;
    uint64_t number = 0;
  };
  struct Operation {
    std::string token;
    std::string old_port;
    uint64_t number = 0;
  };

  Synchronizable lock_;  // guards what follows
  uint64_t next_ = 0;
  std::map<std::string, Numbered> moves_;        // by VIF and path
  std::map<std::string, Operation> operations_;  // by the VM's path
};

}  // namespace zem::zema
