#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim/inventory/host_inventory.h"

namespace orlane::zem::ida {
class IdaMsg;
class InventoryObjectMsg;
}  // namespace orlane::zem::ida

namespace zem::sim {

class Manager;
struct PeerMessage;

/// The manager's inventory of the host, behind the vertical "INVENTORY_DISCOVERY_APPLICATION": answers a
/// request for a full sync with the command to begin it, and each message with its acknowledgement.
///
/// Threads: all operations from any thread but the manager's.
class ManagerInventory {
 public:
  /// `manager` has to outlive the inventory.
  explicit ManagerInventory(Manager& manager);
  ~ManagerInventory();
  ManagerInventory(const ManagerInventory&) = delete;
  ManagerInventory& operator=(const ManagerInventory&) = delete;

  enum class Answers { kGood, kNever, kGarbage, kForeignType };
  /// How the next `count` messages are answered; negative: all.
  void SetAnswers(Answers answers, int count);
  /// Commands the host to begin a full sync.  Empty, or why it could not be sent.
  std::string AskFullSync();
  /// The manager loses all it knows.
  void Forget();

  struct Vni {
    std::string mac;
    std::string attachment;
    std::vector<std::string> addresses;
  };
  struct Vm {
    std::string local_id;
    std::map<uint32_t, std::string> entries;
    std::string guest_host;
  };
  struct Interface {
    bool is_virtual = false;
    bool is_management = false;
    std::string mac;
    std::string address;
    std::string connected_switch;
    std::string backing;
    std::string attachment;
  };
  struct State {
    uint64_t full_syncs = 0;
    uint64_t updates = 0;
    uint64_t heartbeats = 0;
    uint64_t requests = 0;
    std::map<std::string, Vm> vms;  // by external id
    std::map<std::string, Vni> vnis;
    std::map<uint32_t, std::string> host;
    std::map<std::string, Interface> interfaces;
    std::vector<std::string> violations;
  };
  State state() const;

 private:
  std::optional<std::string> Take(const PeerMessage& message);
  void Apply(const orlane::zem::ida::IdaMsg& message);
  void ApplyObject(const orlane::zem::ida::InventoryObjectMsg& object);
  void Violation(const std::string& text);

  Manager& manager_;
  mutable std::mutex mutex_;  // guards what follows
  State state_;
  Answers answers_ = Answers::kGood;
  int answers_left_ = 0;
};

/// What the manager has otherwise than the host; empty at rest.
std::vector<std::string> InventoryDiff(const InventoryFacts& host, const ManagerInventory::State& manager);

}  // namespace zem::sim
