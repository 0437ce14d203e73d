#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sim/host/virtual_machine.h"
#include "sim/manager/vif_table.h"

namespace zem::sim {

/// Who knows what of the host's VIFs.
struct VifKnowledge {
  std::vector<VirtualMachine> machines;
  /// VIFs of the host's own interfaces, which stand on ports as well.
  std::set<std::string> interfaces;
  /// What the manager has, nothing when it keeps no VIFs.
  std::optional<std::vector<VifPlace>> manager;
  /// The host as the manager calls it; places of others are no concern of this one.
  std::string host;
  /// Every port file could be written when it had to be.
  bool files_written = true;
};

/// Where ports, their files, VMs and the manager disagree; one line for each finding.
std::vector<std::string> CheckVifs(const VifKnowledge& knowledge);

}  // namespace zem::sim
