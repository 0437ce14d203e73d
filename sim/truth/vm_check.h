#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sim/host/virtual_machine.h"
#include "sim/manager/vif_table.h"

namespace zem::sim {

/// What each party knows of the host's VIFs.
struct VifKnowledge {
  std::vector<VirtualMachine> machines;
  /// VIFs of the host's own interfaces, which are on ports as well.
  std::set<std::string> interfaces;
  /// The manager's table; nothing when the manager keeps no VIFs.
  std::optional<std::vector<VifPlace>> manager;
  /// The host's id at the manager; entries of other hosts are ignored.
  std::string host;
  /// True when every port file could be written.
  bool files_written = true;
};

/// Reports where ports, their files, VMs and the manager disagree; one line for each finding.
std::vector<std::string> CheckVifs(const VifKnowledge& knowledge);

}  // namespace zem::sim
