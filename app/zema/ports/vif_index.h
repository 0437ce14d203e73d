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

/// An index from VIFs to the ports that may hold them, so that a search need not read every port of the host.
///
/// The promise: a port on which the agent itself has put a VIF is among the VIF's candidates, from before the
/// write until the port is known not to hold it.  A candidate may be out of date, so the reader asks the
/// port, and walks over all ports when the port disagrees.  Therefore a write is registered for as long as it
/// lasts, and a reading of all ports includes the writes that were registered meanwhile.
///
/// Writes by others are not seen.  The host writes when it brings a VM with its ports (the agent then calls
/// Doubt), while the agent is not connected, and in a migration or a host configuration (Invalidate); an
/// operator may write at any time (the next reading sees it, at the latest in the next resync round).  Ports
/// that disappear need no call: asking them fails.  So a VIF without candidates is on no port, except between
/// a write by somebody else and the next reading.  A caller that must also clear such a port reads all ports,
/// unless the VIF is known to be nowhere: a reading has just found it on no port, or the agent has taken it
/// off its last one, and nothing has been heard of it since.
///
/// Threads: all operations from any thread; the lock is held for memory work only and nothing is called under
/// it.
class VifIndex {
 public:
  VifIndex();
  ~VifIndex();
  VifIndex(const VifIndex&) = delete;
  VifIndex& operator=(const VifIndex&) = delete;

  /// Returns the VIF's candidates, or nothing when only a reading of all ports can answer.
  std::optional<std::vector<PortLocation>> Lookup(const std::string& vif) const;

  /// Registers a write that puts the VIF on the port, for the lifetime of the object.
  ///
  /// Threads: one owner.
  class Writing {
   public:
    Writing(VifIndex& index, const std::string& dvs, const std::string& port, const std::string& vif);
    ~Writing();
    Writing(const Writing&) = delete;
    Writing& operator=(const Writing&) = delete;
    /// The write succeeded: the port holds this VIF and no other.  Without this call the port may or may not
    /// hold it.
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

  /// Somebody else may have put the VIF on a port, or is about to.  Its ports are unknown until the next
  /// reading, and it counts as being nowhere only after it has been on a port.
  void Doubt(const std::string& vif);
  /// Forgets everything, and voids the readings that are under way.
  void Invalidate();

  /// The VIF has been taken off a port that it was on, or a reading has found it on none.
  void SetNowhere(const std::string& vif);
  /// False also when only a reading of all ports can tell.
  bool IsNowhere(const std::string& vif) const;

  /// A reading of all ports, which runs without the lock.
  ///
  /// Threads: one owner; several may be under way.
  class Reading {
   public:
    explicit Reading(VifIndex& index);
    ~Reading();
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    void Found(const std::string& dvs, const std::string& port, const std::string& vif);
    /// Every port was read: the index is replaced by what was found.
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

  struct Holding {
    std::string vif;
    PortLocation at;
  };
  /// At most `most` of the VIFs with their ports, in no order; nothing while only a reading of all ports can
  /// answer.
  std::optional<std::vector<Holding>> Holdings(size_t most) const;

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
  /// VIFs in doubt, each with its place in the sequence.
  std::map<std::string, uint64_t> doubts_;
  /// VIFs known to be on no port; none of them has a candidate or is in doubt.
  std::unordered_set<std::string> nowhere_;
  /// VIFs that were put in doubt and have neither been written nor found since.
  std::unordered_set<std::string> coming_;
};

}  // namespace zem::zema
