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

/// The host's part with some VMs of its own: powers them on and off and moves their vNICs.  What gets no
/// answer because the daemon has died is asked again until it has one, as a host does that has to know how
/// its VMs end up.
///
/// Threads: one owner; the counts from any.
/// Errors: std::runtime_error, when an answer is wrong or does not come at all.
class VmWorker {
 public:
  struct Vm {
    std::string name;
    bool on = false;
    /// Of its first vNIC.
    std::string ls;
  };

  VmWorker(const std::string& control, std::vector<Vm> vms, std::vector<std::string> switches, uint64_t seed);

  /// One change of one VM, with all that follows from it.
  void Change();

  uint64_t attaches() const { return attaches_; }
  uint64_t moves() const { return moves_; }
  uint64_t detaches() const { return detaches_; }
  /// How often something was asked again.
  uint64_t repeated() const { return repeated_; }

 private:
  void PowerOn(Vm* vm);
  void PowerOff(Vm* vm);
  void Move(Vm* vm);
  /// Empty when it was done, else the reason.
  std::string Try(const std::string& command, sim::Json* result = nullptr);
  /// A reason that the daemon's death explains; others throw.
  void Judge(const std::string& command, const std::string& reason) const;
  /// Until one of the commands that `next` gives is carried out.
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
