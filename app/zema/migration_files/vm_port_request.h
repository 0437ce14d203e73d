#pragma once

#include <map>
#include <memory>
#include <string>

namespace zem::zema {

struct MigrationRequest;
struct VifRequest;

/// Ports that wait for their VIFs, by VIF id.
using VmPortMap = std::map<std::string, std::shared_ptr<VifRequest>>;

/// The ports of the VMs' vNICs in a request; an entry that is not a vNIC or is incomplete is logged and left
/// out. The path of a VM is not known here: "<vm uuid>:<device>" takes its place.
[[nodiscard]] VmPortMap VmPortsOf(const MigrationRequest& request);

}  // namespace zem::zema
