#pragma once

#include <string>

namespace zem::sim {

/// How the simulated host identifies itself.
struct HostSetup {
  std::string version = "8.0.1";
  std::string product = "Orlane Hypercore 8.0.1";
  std::string pnics = "vmnic0,vmnic1,vmnic2,vmnic3,vmnic4,vmnic5";
  std::string interfaces = "knl0=management,knl1=other";
};

/// Installs the host's tools where the daemon calls them, and creates the host's state.  Only inside a
/// sandbox. Throws std::runtime_error.
void SetUpHost(const HostSetup& setup);

}  // namespace zem::sim
