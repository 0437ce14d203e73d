#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "framework/tasks/synchronizable.h"

namespace zem::zema {

/// Which move of interfaces the host is carrying out.  The host asks for port operations in the middle of
/// one, under its operation id, and the threads that serve them look here.
///
/// Threads: all operations from any thread; the lock is held for memory work only, never across a command.
class MigrationRecord {
 public:
  enum class Kind {
    kNone,
    /// Out to a standard switch or port group.
    kToPln,
    /// Into a logical switch.
    kToLogicalSwitch,
  };

  /// A move that runs while this lives.
  class Scope {
   public:
    Scope(MigrationRecord& record, Kind kind) : record_(record), op_id_(record.Begin(kind)) {}
    ~Scope() { record_.End(); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    const std::string& op_id() const { return op_id_; }
    /// The VIFs that the host has taken off their ports until now.
    std::vector<std::string> TakeLeft() { return record_.TakeLeft(); }

   private:
    MigrationRecord& record_;
    const std::string op_id_;
  };

  /// Whether a move runs that has this operation id.
  bool IsMigrating(const std::string& op_id);
  /// The host takes the VIF off in that move; nothing when it does not run any more.
  void NoteLeft(const std::string& op_id, const std::string& vif);
  Kind kind();

 private:
  /// The operation id, which no other move of this process has.
  std::string Begin(Kind kind);
  void End();
  std::vector<std::string> TakeLeft();

  Synchronizable lock_;  // guards all below
  Kind kind_ = Kind::kNone;
  std::string op_id_;
  std::vector<std::string> left_;
  // How many moves there were, by kind.
  std::array<uint32_t, 3> serials_{};
};

}  // namespace zem::zema
