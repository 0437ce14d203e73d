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

/// One port operation of a VM: what was asked, how it was answered, and what the host then found.
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
  /// Empty: all is as it has to be.
  std::string problem;

  bool good() const { return answered && status == 0 && problem.empty(); }
};

/// The VMs of the host management daemon: each of their changes asks for port operations, waits for the
/// answers, and connects a vNIC only with a port that really is there for it.  So an answer without the work
/// behind it is a problem, which ends the change.
///
/// Threads: all operations from any thread; they wait.  One change of one VM at a time: a second is refused.
/// Errors: std::runtime_error with a text for people.
class VirtualMachines {
 public:
  VirtualMachines(HostManagement& daemon, std::string journal_file);
  /// Stops the daemon and waits for the changes that are under way.
  ~VirtualMachines();

  using Steps = std::vector<VmStep>;
  struct Options {
    uint32_t opcode = 8;
    Duration patience = std::chrono::seconds(70);
    /// Nobody is asked: the host does what it can alone, and notes on the port what the manager does not
    /// know.
    bool agent_down = false;
  };

  /// Makes VMs with a folder below `folder`, powered off; `vnics` as DEVICE to VIF (empty: a new one) and
  /// switch.
  std::vector<VirtualMachine> Create(const std::vector<std::string>& names, const std::string& folder,
                                     const std::map<std::string, Vnic>& vnics);
  /// A copy of a VM's folder under another name beside it, with VIFs of its own; powered off.
  void Clone(const std::string& name, const std::string& copy);
  /// Forgets a VM that is off; with its folder unless `keep`.
  void Delete(const std::string& name, bool keep);

  /// A name, a uuid, or a name with "*" at its end.
  std::vector<VirtualMachine> Find(const std::string& pattern);
  std::vector<VirtualMachine> All();

  Steps PowerOn(const std::vector<std::string>& patterns, const Options& options);
  Steps PowerOff(const std::vector<std::string>& patterns, const Options& options);
  /// The vNIC goes to another switch: attach there, then detach from where it was.
  Steps Move(const std::vector<std::string>& patterns, const std::string& device, const std::string& ls,
             const Options& options);
  /// The same, but the host gives up behind the attach: detach from there, and, with `back`, attach where it
  /// was.
  Steps MoveFail(const std::string& name, const std::string& device, const std::string& ls, bool back,
                 const Options& options);
  enum class Part { kWhole, kBegin, kEnd };
  /// The VM goes to another host, its folder stays where both see it.
  Steps LiveOut(const std::string& name, Part part, const Options& options);
  /// `ls`: where all its vNICs go here; empty: where they were.
  Steps LiveIn(const std::string& folder, const std::string& ls, Part part, const Options& options);
  /// The VM's folder gets another place.
  Steps Relocate(const std::string& name, const std::string& folder, const Options& options);
  /// One operation for a vNIC under a given id, as in the middle of a move of interfaces.
  VmStep Ask(const std::string& name, const std::string& device, uint32_t opcode, const std::string& op_id,
             const std::string& vif, const std::string& ls, const Options& options);

  /// The newest steps of a VM, or of all for an empty name, oldest first.
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
