#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "sim/control/json.h"
#include "sim/scenario/control_client.h"

namespace zem::bench {

/// The host's part for some VMs of its own: powers them on and off and moves their vNICs.  A request that
/// gets no answer because the daemon was killed is repeated until it has one, since the host has to know the
/// state of its VMs.
///
/// Threads: one owner; the counts from any.
/// Errors: std::runtime_error when an answer is wrong or missing.
class VmWorker {
 public:
  struct Vm {
    std::string name;
    bool on = false;
    /// The network of its first vNIC.
    std::string ls;
  };

  VmWorker(const std::string& control, std::vector<Vm> vms, std::vector<std::string> switches, uint64_t seed);

  /// One change of one VM, with everything that follows from it.
  void Change();

  uint64_t attaches() const { return attaches_; }
  uint64_t moves() const { return moves_; }
  uint64_t detaches() const { return detaches_; }
  /// Number of repeated requests.
  uint64_t repeated() const { return repeated_; }

 private:
  void PowerOn(Vm* vm);
  void PowerOff(Vm* vm);
  void Move(Vm* vm);
  /// Returns an empty text when the command was carried out, otherwise the reason.
  std::string Try(const std::string& command, sim::Json* result = nullptr);
  /// Throws unless the daemon's death explains the reason.
  void Judge(const std::string& command, const std::string& reason) const;
  /// Repeats the command that `next` returns until one is carried out.
  void Repeat(const std::function<std::string()>& next);
  void DetachAgain(const Vm& vm, const std::string& device, const std::string& ls);

  sim::ControlClient client_;
  std::vector<Vm> vms_;
  const std::vector<std::string> switches_;
  std::mt19937_64 random_;
  uint64_t asked_ = 0;
  std::atomic<uint64_t> attaches_{0};
  std::atomic<uint64_t> moves_{0};
  std::atomic<uint64_t> detaches_{0};
  std::atomic<uint64_t> repeated_{0};
};

}  // namespace zem::bench
