#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/core/thread.h"
#include "proto/switching/switching.pb.h"
#include "sim/manager/manager.h"
#include "tests/world/world_alarms.h"
#include "tests/world/world_node.h"
#include "tests/world/world_truth.h"

namespace zem::world {

/// Logical switches of the VMs; the first two are in the zone of the first host switch.
inline constexpr std::array kNetworks = {"web", "app", "db", "log"};
inline constexpr int kVms = 6;
/// The name of a VM that is a copy of another.
inline constexpr const char* kClone = "clone";
/// Ports of the host's own on the first switch; their VMs are on a port group, with security settings.
inline constexpr int kSecurityPorts = 2;
/// The port group of these VMs.
inline constexpr const char* kPortGroup = "dvportgroup-7";
/// The vertical that carries the realization's messages.
inline constexpr const char* kVertical = "SwitchingVertical";
/// The host interface that moves between its port group and a logical switch.
inline constexpr const char* kInterface = "knl1";

std::string VmName(uint64_t number);
std::string ZoneOf(size_t network);
std::string SecurityPort(int number);
std::string SecurityVif(int number);

/// A node's random life by a seed: everything that peers may request, every fault that may occur, and in
/// between quiet moments in which all invariants are checked.
///
/// Threads: the thread that made the node's clock; changes of VMs run on threads of their own.
class WorldLife {
 public:
  struct Options {
    uint64_t seed = 1;
    /// In simulated time.
    double hours = 24;
    /// Receives the agent's log; null: no log.
    std::FILE* log = nullptr;
    bool verbose = false;
    /// Parts of the names of operations and misfortunes to leave out, in order to narrow a failure down.
    std::vector<std::string> without;
  };
  explicit WorldLife(const Options& options);
  ~WorldLife();

  /// Returns an empty text when every check held.
  std::vector<std::string> Run();

 private:
  struct Step {
    const char* name;
    int weight;
    void (WorldLife::*run)();
  };
  static const std::vector<Step>& Operations();
  static const std::vector<Step>& Misfortunes();

  uint64_t Pick(uint64_t below) { return random_() % below; }
  bool Chance(uint64_t one_in) { return Pick(one_in) == 0; }
  void Say(const std::string& line);
  void Do(const std::vector<Step>& steps);
  int WeightOf(const Step& step) const;

  // Requests of peers.
  void SendConfig();
  void MoveInterface();
  void SendMove(bool in);
  void MoveInterfaceByFile();
  void VisitMaintenance();
  void AskChecksum();
  void PutSwitches();
  void DeleteSwitches();
  void SendSwitches(const std::set<uint32_t>& numbers, bool put);
  int SendAllSwitches();
  void CutTransaction();
  void PowerVm();
  void MoveVm();
  void FailMove();
  void LiveMove();
  void RelocateVm();
  void CloneVm();
  void ToggleSecurityPort();
  void RestartAgent();
  void ChangeProtection();
  void ChangeGuests();
  void AnnounceAlerts();
  void ChangeInventory();
  void TracePackets();
  void AskServices();
  void Capture();
  void MoveGuests();
  void RaiseOrClearAlarm();
  void ReportStatus();

  // Misfortunes.
  void StopProxy();
  void StartProxy();
  void BreakConnection();
  void FreezeManager();
  void LoseAph();
  void ChangeMaster();
  void MisanswerVif();
  void BreakStore();
  void FailStoreCall();
  void EndStreams();
  void FailCommand();
  void FailLibraryCall();
  void DropHostManagement();
  void FillDisk();
  void FailMaintenanceTool();
  void BounceMultiplexer();
  void MoveServiceVm();
  void DisturbAlerts();
  void DisturbInventory();
  void DisturbTraces();
  void DisturbServices();
  void DisturbCapture();
  void DisturbFlow();
  void AlarmClientGoesOrComes();
  void AlarmClientMisbehaves();
  void CollectorMisanswers();
  void LogonsMisanswered();

  void Calm();
  void Launch(const std::string& vm, std::function<sim::VirtualMachines::Steps()> change);
  void JoinVms();
  void HealVms();
  int SendMaintenance(uint32_t state);
  bool InterfaceIsOut();
  void AskSecurityPort(int number, bool attach);
  std::string FirstSwitch();
  void AskAgain(const std::string& vm);
  void Modify(const orlane::zem::covedb::ModifyRequestMsg& request);
  /// Returns the message's number among those sent.
  int Send(const std::string& member, const google::protobuf::Message& message);
  std::optional<int> OutcomeOf(int number);
  int AwaitOutcome(int number);
  std::string StoredChecksum();

  std::vector<std::string> CheckAll();
  void SettleConfig(std::vector<std::string>* lines);
  void SettleSwitches(std::vector<std::string>* lines);
  std::vector<std::string> CheckAcknowledged();
  std::vector<std::string> CheckSwitches();
  void SettleMaintenance(std::vector<std::string>* lines);
  void CheckMaintenance(std::vector<std::string>* lines);
  void CheckFileMigration(std::vector<std::string>* lines);
  std::vector<std::string> CheckPorts();
  std::vector<std::string> CheckChannel();
  void RemoveClone(std::vector<std::string>* lines);
  void LeaveSwitches(std::vector<std::string>* lines);
  void RemoveAndReturn(std::vector<std::string>* lines);
  void TakeAPeerAway(std::vector<std::string>* lines);
  void AllVmsOff(std::vector<std::string>* lines);
  /// Repeats `check` until it finds nothing; otherwise its last finding is reported.
  void Await(const std::function<std::vector<std::string>()>& check, std::vector<std::string>* lines);

  const Options options_;
  std::mt19937_64 random_;

  int revision_ = 0;
  orlane::zem::switching::HostConfigMsg wanted_;
  int last_config_ = -1;
  std::set<uint32_t> switches_;
  /// Logical switches come from the manager itself, not from the store.
  const bool managed_;
  struct SentSwitch {
    int32_t revision;
    uint64_t after;  // number of messages that the manager had received before
  };
  std::map<std::string, SentSwitch> sent_switches_;  // since the last complete list
  std::set<std::string> listed_;                     // in the last complete list
  std::optional<int> list_;                          // number of the list among the messages sent
  uint64_t barrier_ = 0;
  uint64_t again_ = 0;
  uint64_t moves_ = 0;          // moves of the host's interface
  std::string file_migration_;  // the last id that a tool requested, while its outcome is pending
  bool other_uplinks_ = false;  // a tool has changed the uplinks without the manager's knowledge
  bool running_ = false;
  std::list<NativeThread> changes_;

  std::mutex mutex_;  // guards what follows
  int sent_ = 0;
  std::map<int, int> ends_;
  std::map<int, int> outcomes_;
  std::set<std::string> unsure_;  // VMs whose last operation failed
  std::set<std::string> busy_;

  WorldTruth truth_{node_};
  /// Declared behind all that its destructor's callbacks still use.
  WorldNode node_;
  std::unique_ptr<WorldAlarms> alarms_;
};

}  // namespace zem::world
