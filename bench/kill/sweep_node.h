#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "bench/kill/background.h"
#include "bench/kill/checksum_question.h"
#include "sim/scenario/node_process.h"

namespace zem::bench {

inline constexpr const char* kNodeId = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01";

inline constexpr const char* kSecondSwitch = "50 2e 6b 1a 77 c0 41 aa-9d 11 00 00 00 00 00 02";

/// The contents of a host configuration of the sweep.
struct Shape {
  enum class Interface { kStays, kIn, kOut };

  int mtu = 1600;
  int endpoints = 1;
  bool two_uplinks = false;
  bool third_switch = false;
  bool second_router = false;
  /// Settings that are applied only while the host is in maintenance mode.
  bool performance = false;
  /// The destination of the management interface.
  Interface interface = Interface::kStays;

  bool operator==(const Shape&) const = default;
};

/// A node and what its peers want of it: the manager a configuration or none, the store its logical switches,
/// the host its VMs.  One or several operations are in progress when the daemon is killed.  Afterwards the
/// peers behave as real ones do and repeat unanswered requests, and in the end all have to agree.
///
/// Threads: one.
/// Errors: std::runtime_error with the check that failed.
class SweepNode {
 public:
  explicit SweepNode(int clock_factor);

  sim::NodeProcess& node() { return node_; }

  // The states in which operations begin.  Each function waits until the state is reached.
  void BeConfigured(const Shape& shape);
  void BeRemoved();
  void LeaveMaintenance();
  /// The VM that operations change runs here, in network `ls`, or is off.
  void HaveVm(bool on, const std::string& ls = "web");
  /// The VM runs on another host.
  void HaveVmAway();
  /// Another VM, which has to keep its ports.
  void HaveBystander(bool on);
  void HaveInterface(bool in);
  void HaveFewSwitches();
  /// A port of a port group, whose VM wants only security settings for it.
  void HaveSecurityPort(bool tied);

  // The operations: requested without waiting.
  void SendConfig(const Shape& shape);
  void SendRemoval();
  void Reset();
  void SetMaintenance(bool on);
  void PutSwitches();
  /// Operations whose outcome no peer waits for.
  void PutSwitchesUnheard();
  void DeleteSwitches();
  void SendSwitch();
  void SendControllers();
  void MigrateByFile(bool in);
  void TieSecurityPort(bool tied);
  void PowerOn();
  void PowerOff();
  void Move();
  void FailMove();
  void LiveOut();
  void LiveIn();
  void Relocate();
  void RestoreByManager();
  /// Only ends and starts the daemon.
  void Restart();

  /// Waits until every request has its outcome.
  bool OperationsEnded() const;
  /// Waits until the daemon is connected to the host management daemon.
  bool Serves();
  /// Waits until a daemon serves again, lets the peers repeat their unanswered requests, and checks what must
  /// be true at quiet.
  void Settle();

 private:
  struct Sent {
    std::string text;
    /// Empty for a removal.
    std::string checksum;
  };

  struct Running {
    std::unique_ptr<Background> work;
    std::function<void(const std::string& reason)> finish;
  };

  void Begin(Background::Work work, std::function<void(const std::string& reason)> finish);
  void Run(const std::string& command);
  /// A command that the host or the manager repeats until it is carried out.
  void Insist(const std::string& command);
  static constexpr auto kPatience = std::chrono::seconds(20);
  std::string Message(const Shape& shape) const;
  void BeginSent();
  void SendAgain();
  void AwaitServing();
  std::string StoredChecksum();
  void SettleConfig();
  void AwaitClean();
  void Again(const std::string& command, const std::function<bool(const cJSON*)>& good);
  std::string NewSwitches();
  void WriteForgottenSwitches();
  void ForgetSwitches();
  void ChangeStore(const std::string& change);
  void ChangeVm(const std::string& command);
  void HealVm();
  void MakeSecurityPort();
  void DetachAgain(const std::string& device, const std::string& network);
  std::string VmPath();
  bool VmOn(const std::string& vm);

  static bool IsTied(const cJSON* ports);

  std::string Disagreement();
  std::string NetworksDisagreement();
  std::string HostDisagreement();
  std::string PeersDisagreement();
  std::string SecurityDisagreement();
  void CheckBystander();
  void CheckPerformance();
  std::string ControllersDisagreement();

  sim::NodeProcess node_;
  ChecksumQuestion checksum_{node_, kNodeId};
  std::vector<Running> running_;

  int number_ = 0;  // of configurations, and of all that needs a new name
  std::vector<Sent> sent_;
  Shape shape_;
  bool configured_ = false;
  bool acknowledged_ = true;
  bool interface_in_ = false;
  bool changed_by_tool_ = false;  // the host differs from the configuration until that is sent again
  bool maintenance_ = false;
  bool clean_ = true;  // the last request was a reset or removal
  std::set<uint32_t> switches_;
  // Networks of the store from before a removal: until they are written again, a host that came back may have
  // them.
  std::set<uint32_t> forgotten_;
  uint64_t barrier_ = 0;
  std::string controller_;
  bool security_tied_ = false;
  bool performance_waits_ = false;
  bool vm_on_ = false;
  bool vm_here_ = true;
  std::string away_;  // folder of the VM that runs on another host
};

}  // namespace zem::bench
