#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "app/zema/ports/port_location.h"

namespace zem::zema {

/// On which ports a VIF may be, so that nobody has to go through all ports of the host to find out.
///
/// What it promises: a port that the agent itself has put a VIF on is among the VIF's candidates, from before
/// the write until the port is known not to hold it.  A candidate may be out of date, so its reader asks the
/// port, and falls back to the walk over all ports when the port says otherwise.  That is why writes are told
/// as long as they go on, and why a reading of the ports takes along what was told while it went on.
///
/// What others write is not seen: the host when it brings a VM with its ports (told by Doubt), when it had
/// nobody to ask, or in a migration or a host configuration (told by Invalidate), an operator (seen by the
/// next reading, which each round of the resync makes).  Ports that vanish, with their switch or because the
/// host lost them, need not be told: their candidates fail the question.  So a VIF without candidates is on
/// no port, except between a write by somebody else and the next reading.  Who has to clear such a port, too,
/// reads all ports; not so for a VIF that is known to be nowhere, because a reading has just said so or the
/// agent has taken it off its last port, until anything is heard of it again.
///
/// Threads: all operations from any thread; the lock is held for memory work only and nothing is called under
/// it.
class VifIndex {
 public:
  VifIndex();
  ~VifIndex();
  VifIndex(const VifIndex&) = delete;
  VifIndex& operator=(const VifIndex&) = delete;

  /// Nothing when only a reading of all ports can tell.
  std::optional<std::vector<PortLocation>> Lookup(const std::string& vif) const;

  /// The VIF is put on the port, from the object's beginning to its end.
  ///
  /// Threads: one owner.
  class Writing {
   public:
    Writing(VifIndex& index, const std::string& dvs, const std::string& port, const std::string& vif);
    ~Writing();
    Writing(const Writing&) = delete;
    Writing& operator=(const Writing&) = delete;
    /// The port holds it, and no other.  Without this the port may or may not.
    void Done() { done_ = true; }

   private:
    friend class VifIndex;

    VifIndex& index_;
    const PortLocation at_;
    const std::string vif_;
    bool done_ = false;
  };
  /// No VIF is on the port.
  void Forget(const std::string& dvs, const std::string& port);

  /// Somebody else may have put the VIF on a port, or is about to: unknown until the next reading, and known
  /// to be nowhere only after it has been on a port.
  void Doubt(const std::string& vif);
  /// Nothing is known, also not by readings that are under way.
  void Invalidate();

  /// The VIF has been taken off a port that it was on, or a reading has found it on none.
  void SetNowhere(const std::string& vif);
  /// False also when only a reading of all ports can tell.
  bool IsNowhere(const std::string& vif) const;

  /// A reading of all ports, which goes on without the lock.
  ///
  /// Threads: one owner; several may be under way.
  class Reading {
   public:
    explicit Reading(VifIndex& index);
    ~Reading();
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    void Found(const std::string& dvs, const std::string& port, const std::string& vif);
    /// Every port was read: from now on the index says what was found.
    void Install();

   private:
    struct Table;
    friend class VifIndex;

    VifIndex& index_;
    uint64_t generation_ = 0;
    size_t first_note_ = 0;
    uint64_t begun_ = 0;
    std::unique_ptr<Table> table_;
  };

  size_t size() const;

 private:
  using Table = Reading::Table;
  struct Written {
    PortLocation at;
    std::string vif;
  };

  void AddLocked(const Writing& writing);

  mutable std::mutex lock_;       // guards all below
  std::unique_ptr<Table> table_;  // null while only a reading can tell
  uint64_t generation_ = 0;
  /// Counts doubts and readings.
  uint64_t sequence_ = 0;
  std::vector<const Writing*> writings_;  // under way
  size_t readings_ = 0;
  /// What has been written while readings are under way.
  std::vector<Written> notes_;
  /// With their place in the sequence.
  std::map<std::string, uint64_t> doubts_;
  /// None of them has a candidate or a doubt.
  std::unordered_set<std::string> nowhere_;
  /// With a doubt, and since then neither written nor found.
  std::unordered_set<std::string> coming_;
};

}  // namespace zem::zema
