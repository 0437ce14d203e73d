#pragma once

#include <map>
#include <memory>
#include <string>

namespace zem::zema {

struct MigrationRequest;
struct VifRequest;

/// Ports that wait for their VIFs, by VIF.
using VmPortMap = std::map<std::string, std::shared_ptr<VifRequest>>;

/// The ports of the VMs' vNICs in a request; what is no such thing, or incomplete, is left out with a line.
/// The path of a VM is not known here: "<vm uuid>:<device>" stands in its place.
[[nodiscard]] VmPortMap VmPortsOf(const MigrationRequest& request);

}  // namespace zem::zema
