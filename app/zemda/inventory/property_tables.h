#pragma once

#include <array>
#include <cstdint>

/// The names of the inventory daemon's properties, and their keys in the manager's messages.
namespace ZemDa {

struct PropertyKey {
  const char* name;
  uint32_t key;
};

inline constexpr std::array kQubIdentifiers = {
    PropertyKey{"config.uuid", 0}, PropertyKey{"config.locationId", 1}, PropertyKey{"MoId", 2},
    PropertyKey{"config.instanceUuid", 3}, PropertyKey{"hostLocalId", 5}};

inline constexpr std::array kVmIdentifiers = {PropertyKey{"vmExternalId", 1}};

/// In the order of their lines.
inline constexpr std::array kVniProperties = {PropertyKey{"MacAddress", 0},
                                              PropertyKey{"MacKey", 2},
                                              PropertyKey{"DevName", 3},
                                              PropertyKey{"LportAttachmentId", 4},
                                              PropertyKey{"BackingType", 5},
                                              PropertyKey{"BackingName", 6},
                                              PropertyKey{"BackingPortSwitchUuid", 7},
                                              PropertyKey{"BackingPortPortgroupKey", 8},
                                              PropertyKey{"BackingPortPortKey", 9},
                                              PropertyKey{"BackingPortConnectionCookie", 10},
                                              PropertyKey{"config.hardware.device.uptv2Enabled", 12}};
static_assert(kVniProperties.size() == 11);

inline constexpr std::array kHostProperties = {
    PropertyKey{"config.network.dnsConfig.fqdn", 0}, PropertyKey{"config.product.version", 2},
    PropertyKey{"summary.managementServerIp", 3},    PropertyKey{"config.certificate", 4},
    PropertyKey{"hardware.cpuInfo.cpuSockets", 5},   PropertyKey{"hardware.cpuInfo.cpuCores", 6},
    PropertyKey{"hardware.cpuInfo.cpuThreads", 7},   PropertyKey{"hardware.numaInfo.numNodes", 8},
    PropertyKey{"config.product.build", 9}};
inline constexpr uint32_t kHostTypeKey = 1;

/// What is kept of a VM's changes.
inline constexpr std::array kVmProperties = {
    "config.uuid",        "config.instanceUuid", "config.locationId", "vmExternalId",        "name",
    "runtime.powerState", "ipAddresses",         "guest.hostName",    "guest.guestFullName", "HDCS.agent",
    "vCLSCRX.agent"};

inline constexpr std::array kDpuProperties = {
    "host.dpu.firmwareversion", "host.dpu.model",     "host.dpu.vendor",  "host.dpu.state",
    "host.dpu.osversion",       "host.dpu.isprimary", "host.dpu.dpualias"};

}  // namespace ZemDa
