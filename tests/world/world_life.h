#pragma once

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
#include "tests/world/world_node.h"

namespace zem::world {

/// A node's random life by a seed: everything that peers may ask, everything that may go wrong, and between
/// them moments of quiet in which all that must be true is looked at.
///
/// Threads: the one that made the node's clock; changes of VMs run on threads of their own meanwhile.
class WorldLife {
 public:
  struct Options {
    uint64_t seed = 1;
    /// Simulated.
    double hours = 24;
    /// Of the agent; null: nowhere.
    std::FILE* log = nullptr;
    bool verbose = false;
  };
  explicit WorldLife(const Options& options);
  ~WorldLife();

  /// Empty: all was true at each quiet.
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

  // What peers ask.
  void SendConfig();
  void AskChecksum();
  void PutSwitches();
  void DeleteSwitches();
  void CutTransaction();
  void PowerVm();
  void MoveVm();
  void FailMove();
  void LiveMove();
  void RelocateVm();
  void RestartAgent();

  // What goes wrong.
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

  void Calm();
  void Launch(const std::string& vm, std::function<sim::VirtualMachines::Steps()> change);
  void JoinVms();
  void HealVms();
  void AskAgain(const std::string& vm);
  void Modify(const orlane::zem::covedb::ModifyRequestMsg& request);
  /// A host configuration; gives its number among those sent.
  int Send(const std::string& member, const google::protobuf::Message& message);
  std::optional<int> OutcomeOf(int number);
  std::string StoredChecksum();

  std::vector<std::string> CheckAll();
  void SettleConfig(std::vector<std::string>* lines);
  void RemoveAndReturn(std::vector<std::string>* lines);
  void AllVmsOff(std::vector<std::string>* lines);
  /// Waits for `check` to find nothing; what it found last is added.
  void Await(const std::function<std::vector<std::string>()>& check, std::vector<std::string>* lines);

  const Options options_;
  std::mt19937_64 random_;

  int revision_ = 0;
  orlane::zem::switching::HostConfigMsg wanted_;
  int last_config_ = -1;
  std::set<uint32_t> switches_;
  uint64_t barrier_ = 0;
  uint64_t again_ = 0;
  std::list<Thread> changes_;
  std::map<std::string, std::string> folders_;  // of VMs that have gone to another host

  std::mutex mutex_;  // guards what follows
  int sent_ = 0;
  std::map<int, int> ends_;
  std::map<int, int> outcomes_;
  std::set<std::string> unsure_;  // VMs with an operation that did not end well
  std::set<std::string> busy_;

  /// Last: what its end still calls back uses all of the above.
  WorldNode node_;
};

}  // namespace zem::world
