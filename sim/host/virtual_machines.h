#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "platform/core/condition.h"
#include "sim/host/host_management.h"
#include "sim/host/virtual_machine.h"
#include "sim/host/vm_journal.h"
#include "sim/switch/vif_ports.h"

namespace zem::sim {

/// One port operation of a VM: the request, its answer, and the state that the host then found.
struct VmStep {
  std::string vm;
  std::string uuid;
  std::string device;
  uint32_t opcode = 0;
  std::string op_id;
  std::string vif;
  std::string ls;
  std::string path;
  bool answered = false;
  uint32_t status = 0;
  std::string text;
  int64_t took_us = 0;
  /// The first error found; empty when there was none.
  std::string problem;

  bool good() const { return answered && status == 0 && problem.empty(); }
};

/// The VMs of the host management daemon.  Each change of a VM requests port operations, waits for the
/// answers, and connects a vNIC only to a port that really exists for it.  A positive answer without the work
/// behind it is therefore reported as a problem and ends the change.
///
/// Threads: all operations from any thread; they block.  A VM takes one change at a time: a second is
/// refused.  Errors: std::runtime_error with a readable text.
class VirtualMachines {
 public:
  VirtualMachines(HostManagement& daemon, std::string journal_file);
  /// Stops the daemon and waits for the changes in progress.
  ~VirtualMachines();

  using Steps = std::vector<VmStep>;
  struct Options {
    uint32_t opcode = 8;
    Duration patience = std::chrono::seconds(70);
    /// The agent is down: the host sends no request, does what it can alone, and marks on the port what the
    /// manager does not know.
    bool agent_down = false;
  };

  /// Makes powered-off VMs, each with a folder below `folder`.  `vnics` maps DEVICE to its VIF (empty: a new
  /// one) and logical switch.
  std::vector<VirtualMachine> Create(const std::vector<std::string>& names, const std::string& folder,
                                     const std::map<std::string, Vnic>& vnics);
  /// Copies a VM's folder to another name beside it and gives the copy VIFs of its own; the copy is powered
  /// off.
  void Clone(const std::string& name, const std::string& copy);
  /// Removes a powered-off VM from the host, and its folder unless `keep`.
  void Delete(const std::string& name, bool keep);

  /// Selects VMs by a name, a uuid, or a name prefix followed by "*".
  std::vector<VirtualMachine> Find(const std::string& pattern);
  std::vector<VirtualMachine> All();

  Steps PowerOn(const std::vector<std::string>& patterns, const Options& options);
  Steps PowerOff(const std::vector<std::string>& patterns, const Options& options);
  /// Moves the vNIC to another switch: attaches it there, then detaches it from the old one.
  Steps Move(const std::vector<std::string>& patterns, const std::string& device, const std::string& ls,
             const Options& options);
  /// Like a move, but the host gives up after the attach: it detaches the vNIC from the new switch and, with
  /// `back`, attaches it to the old one again.
  Steps MoveFail(const std::string& name, const std::string& device, const std::string& ls, bool back,
                 const Options& options);
  enum class Part { kWhole, kBegin, kEnd };
  /// The VM moves to another host; its folder stays where both hosts see it.
  Steps LiveOut(const std::string& name, Part part, const Options& options);
  /// `ls`: the logical switch of all its vNICs on this host; empty keeps those they had.
  Steps LiveIn(const std::string& folder, const std::string& ls, Part part, const Options& options);
  /// Moves the VM's folder to another place.
  Steps Relocate(const std::string& name, const std::string& folder, const Options& options);
  /// Requests one operation for a vNIC under a given id, as in the middle of a move of interfaces.
  VmStep Ask(const std::string& name, const std::string& device, uint32_t opcode, const std::string& op_id,
             const std::string& vif, const std::string& ls, const Options& options);

  /// The newest steps of a VM, or of all VMs for an empty name, oldest first.
  Steps Log(const std::string& name, size_t count) const;

 private:
  class Claim;

  std::vector<VirtualMachine> ClaimAll(const std::vector<std::string>& patterns, Claim* claim);
  std::string NewStem(const VirtualMachine& machine);
  static VmStep StepOf(const VirtualMachine& machine, const std::string& device, uint32_t opcode,
                       const std::string& op_id);
  void AskAll(Steps* steps, const Options& options);
  void Plug(VmStep* step, Vnic* vnic);
  void AttachAlone(VmStep* step, Vnic* vnic);
  void DetachAlone(VmStep* step);
  static void Unplug(Vnic* vnic);
  static void Inspect(Steps* steps);
  void Save(const VirtualMachine& machine);
  void Keep(const Steps& steps);

  HostManagement& daemon_;
  mutable std::mutex mutex_;  // guards what follows
  VmJournal journal_;
  std::set<std::string> busy_;
  Condition idle_;
  uint64_t operations_ = 0;
  std::deque<VmStep> log_;
};

}  // namespace zem::sim
