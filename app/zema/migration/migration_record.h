#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "framework/tasks/synchronizable.h"

namespace zem::zema {

/// Records which move of interfaces the host is carrying out.  During a move, the host asks for port
/// operations under the move's operation id, and the threads that serve these requests look the id up here.
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

  /// A move, which runs while this object lives.
  class Scope {
   public:
    Scope(MigrationRecord& record, Kind kind) : record_(record), op_id_(record.Begin(kind)) {}
    ~Scope() { record_.End(); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    const std::string& op_id() const { return op_id_; }
    /// Takes the VIFs that the host has removed from their ports so far.
    std::vector<std::string> TakeLeft() { return record_.TakeLeft(); }

   private:
    MigrationRecord& record_;
    const std::string op_id_;
  };

  /// Whether a move with this operation id is running.
  bool IsMigrating(const std::string& op_id);
  /// Records that the host removes the VIF during that move; does nothing when the move no longer runs.
  void NoteLeft(const std::string& op_id, const std::string& vif);
  Kind kind();

 private:
  /// Returns the operation id, which is unique among the moves of this process.
  std::string Begin(Kind kind);
  void End();
  std::vector<std::string> TakeLeft();

  Synchronizable lock_;  // guards all below
  Kind kind_ = Kind::kNone;
  std::string op_id_;
  std::vector<std::string> left_;
  // The number of moves so far, by kind.
  std::array<uint32_t, 3> serials_{};
};

}  // namespace zem::zema
