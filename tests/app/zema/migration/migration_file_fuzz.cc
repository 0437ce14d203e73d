#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "app/zema/migration/migration_file.h"
#include "app/zema/migration_files/interface_request.h"
#include "app/zema/migration_files/vm_port_request.h"
#include "app/zema/ports/vif_request.h"
#include "proto/switching/switching.pb.h"

// Both files have the same form; the values read from them must fit the host's commands and ports.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zem::zema;
  MigrationRequest request;
  std::string error;
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (MigrationFile::Parse(text, &request, &error) != MigrationFile::Read::kDone) {
    if (error.empty()) std::abort();
    return 0;
  }
  for (const auto& [vif, port] : VmPortsOf(request)) {
    if (vif.empty() || port->vif_id != vif || !port->spec) std::abort();
    if (request.in && (port->ls_id.empty() || port->port_id.empty() || port->zone_id.empty())) std::abort();
  }
  orlane::zem::switching::HostConfigMsg config;
  auto* const named = config.add_host_switches();
  named->set_id("plain");
  named->set_name("ks-1");
  named->add_vteps();
  if (!PutIntoConfig(request, &config, &error)) {
    if (error.empty()) std::abort();
    return 0;
  }
  const auto& moves = config.qub_if_migration();
  if (moves.to_lswitches_size() > 0 && moves.to_vsw_or_psw_size() > 0) std::abort();
  for (const auto& move : moves.to_lswitches()) {
    if (move.host_switch_id() != "plain") std::abort();
  }
  return 0;
}
