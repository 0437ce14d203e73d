#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/firewall/filter_device.h"

/// The state of the host's firewall as files in the tree of the host's kernel: they outlive the daemon.  The
/// library and the device stand-in change them from the daemon's process, the node from its own.
namespace zem::sim::firewall {

/// The filter of one vNIC.
struct Filter {
  std::string name = "orlane-sfw";
  std::string vm_uuid;
  uint32_t vnic = 0;
  uint64_t bypassed = 0;
  uint64_t dropped = 0;
  bool has_vif = true;
};

/// An entry of the context table: who has opened a connection.
struct Connection {
  std::string vm_uuid;
  uint32_t vnic = 0;
  std::string key;  // "PROTOCOL SOURCE:PORT DESTINATION:PORT"
  std::string user;
  uint64_t process = 0;  // 0 when no process was told
};

struct Membership {
  std::string user;
  uint32_t user_hash = 0;
  std::vector<std::string> groups;
  uint32_t vnic = 0;  // where it was told
};

/// Makes the folders; false when that fails.
[[nodiscard]] bool Prepare();

/// Also replaces a filter of the same VM and vNIC.
[[nodiscard]] bool PutFilter(const Filter& filter);
[[nodiscard]] bool RemoveFilter(const std::string& vm_uuid, uint32_t vnic);
std::optional<Filter> FindFilter(const std::string& vm_uuid, uint32_t vnic);
/// Sorted by VM and vNIC.
std::vector<Filter> Filters();

[[nodiscard]] bool PutConnection(const Connection& connection);
std::vector<Connection> Connections();

/// Refuses a user whose key cannot be a file's name.
[[nodiscard]] bool PutMembership(const Membership& membership);
bool HasMembership(const std::string& user);
[[nodiscard]] bool ForgetMembership(const std::string& user);
std::vector<Membership> Memberships();

/// The firewall starts anew: the context table and the memberships are lost, the filters are the host's.
void Restart();

/// What the device does otherwise than it should.
enum class DeviceFault {
  kNone,
  kNullBuffer,    // the second request takes the buffer away
  kMore,          // filters come between the requests: the second one counts more than it wrote
  kFewer,         // all filters but one go between the requests
  kUnterminated,  // texts fill their fields to the end
};
std::optional<DeviceFault> DeviceFaultOf(const std::string& name);
void SetDeviceFault(DeviceFault fault);

DeviceFault CurrentDeviceFault();

/// One request of the device, as ioctl() would answer it: 0, or -1 with errno set.
int ServeRequest(unsigned long request, FW_DeviceHeader* header);

}  // namespace zem::sim::firewall
