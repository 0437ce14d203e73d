#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "proto/switching/switching.pb.h"

namespace zem::sim {

inline constexpr const char* kZones[] = {"a0000000-0000-4000-8000-0000000000a1",
                                         "a0000000-0000-4000-8000-0000000000a2"};

/// A configuration as a manager might send it: two switches that always exist, because VMs use them, with
/// random endpoints, physical NICs and sizes, and a third switch that is sometimes there.
orlane::zem::switching::HostConfigMsg MakeConfig(const std::string& node_id, int revision,
                                                 std::mt19937_64& random);

/// The second switch, which has kZones[1].
inline constexpr const char* kSecondSwitch = "502e6b1a-77c0-41aa-9d11-000000000002";

/// Adds to `config` the move of a host interface to a port of the second switch.
void MoveInterfaceIn(const std::string& device, const std::string& ls, const std::string& vif,
                     const std::string& port, orlane::zem::switching::HostConfigMsg* config);
/// Adds to `config` the move of that interface back to a port group of the host.
void MoveInterfaceOut(const std::string& device, const std::string& port_group,
                      orlane::zem::switching::HostConfigMsg* config);

/// The configuration that a manager sends to a host that it removes from the fabric.
orlane::zem::switching::HostConfigMsg MakeRemoval();

/// The checksum that the manager compares to judge what the host has.
std::string ChecksumOf(const orlane::zem::switching::HostConfigMsg& config);
std::string ChecksumOf(const std::string& node_id, const std::string& id, const std::string& revision);

}  // namespace zem::sim
