#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace zem::sim {

class HostState;
class VirtualMachines;

/// A vNIC as the host's inventory has it.
struct VnicFacts {
  std::string mac;
  /// Empty while the vNIC is not connected.
  std::string attachment;
  std::vector<std::string> addresses;

  bool operator==(const VnicFacts&) const = default;
};

struct VmFacts {
  uint64_t mo_id = 0;
  std::string name;
  /// Empty until the host has given it one.
  std::string external_id;
  std::string uuid;
  bool on = false;
  std::string guest_host;
  /// By device key.
  std::map<uint32_t, VnicFacts> vnics;

  bool operator==(const VmFacts&) const = default;
};

/// An interface as the host's own tools print it.
struct InterfaceFacts {
  bool is_virtual = false;
  bool is_management = false;
  std::string mac;
  std::string address;  // of virtual ones
  /// The switch that it is on; empty when it is on none.
  std::string connected_switch;
  /// What kind of switch that is.
  std::string backing;
  /// Of a virtual one on a logical switch.
  std::string attachment;

  bool operator==(const InterfaceFacts&) const = default;
};

struct HostFacts {
  std::map<std::string, std::string> properties;
  std::map<std::string, InterfaceFacts> interfaces;

  bool operator==(const HostFacts&) const = default;
};

struct InventoryFacts {
  HostFacts host;
  std::map<uint64_t, VmFacts> vms;  // by MoId
};

/// What the host knows of itself and its VMs: the truth that the inventory daemon tells, and against which
/// the manager's inventory is held.
///
/// Threads: all operations from any thread.  Errors: std::runtime_error with a readable text.
class HostInventory {
 public:
  HostInventory(const HostState& host, VirtualMachines& machines);

  InventoryFacts Read();

  // What only the inventory has.  A VM is named by the host's name of it.
  void Rename(const std::string& vm, const std::string& name);
  void SetGuest(const std::string& vm, const std::string& host_name);
  void SetAddresses(const std::string& vm, uint32_t key, std::vector<std::string> addresses);
  /// New VMs have no external id until it is turned on again.
  void GiveExternalIds(bool on);
  void SetHostProperty(const std::string& name, const std::string& value);

 private:
  struct Extra {
    uint64_t mo_id = 0;
    bool has_external_id = false;
    std::string name;
    std::string guest_host;
    std::map<uint32_t, std::vector<std::string>> addresses;
  };

  Extra& ExtraOf(const std::string& vm);
  HostFacts ReadHost() const;

  const HostState& host_;
  VirtualMachines& machines_;
  std::mutex mutex_;                     // guards what follows
  std::map<std::string, Extra> extras_;  // by the VM's uuid
  std::map<std::string, std::string> host_properties_;
  uint64_t last_mo_id_ = 0;
  bool gives_external_ids_ = true;
};

}  // namespace zem::sim
