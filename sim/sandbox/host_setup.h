#pragma once

#include <string>

namespace zem::sim {

/// What the simulated host says of itself.
struct HostSetup {
  std::string version = "8.0.1";
  std::string product = "Orlane Hypercore 8.0.1";
  std::string pnics = "vmnic0,vmnic1,vmnic2,vmnic3,vmnic4,vmnic5";
  std::string interfaces = "knl0=management,knl1=other";
};

/// Puts the host's tools where the daemon calls them, and makes the host's state.  In a sandbox only.  Throws
/// std::runtime_error.
void SetUpHost(const HostSetup& setup);

}  // namespace zem::sim
