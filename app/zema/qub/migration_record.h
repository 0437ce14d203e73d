#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "app/zema/common/synchronizable.h"

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

   private:
    MigrationRecord& record_;
    const std::string op_id_;
  };

  /// Whether a move runs that has this operation id.
  bool IsMigrating(const std::string& op_id);
  Kind kind();

 private:
  /// The operation id, which no other move of this process has.
  std::string Begin(Kind kind);
  void End();

  Synchronizable lock_;  // guards all below
  Kind kind_ = Kind::kNone;
  std::string op_id_;
  // How many moves there were, by kind.
  std::array<uint32_t, 3> serials_{};
};

}  // namespace zem::zema
