#pragma once

#include <map>
#include <string>

#include "framework/tasks/outcome.h"

namespace zem::zema {

class PortDataFiles;
class PortProperties;
class SwitchLibrary;
class TransportZones;
struct HostSwitchInfo;
struct PortConfigSpec;

/// Creates ports.
///
/// Threads: all operations from any thread; files and the library block, so none from a provider's.
/// Sequences of changes to one port are kept apart by their callers.
/// Ownership: holds its arguments by reference.
class PortCreation {
 public:
  PortCreation(SwitchLibrary& library, TransportZones& zones, PortProperties& properties,
               PortDataFiles& files)
      : library_(library), zones_(zones), properties_(properties), files_(files) {}

  /// Creates the port, or updates an existing one, and saves its file.  `gcf_path` is the path of the VM's
  /// configuration file, or a word without "/" for a port without a VM ("knlnic").  When the switch refuses
  /// one property, the others are set nevertheless, and the outcome is the last failure.  A port file that
  /// cannot be written is logged and is no failure.
  Outcome CreatePort(const PortConfigSpec& spec, const std::string& vif, const std::string& gcf_path,
                     bool block);

 private:
  Outcome CreateNew(const HostSwitchInfo& host_switch, const PortConfigSpec& spec, const std::string& block,
                    bool unblock);
  /// Reads the block setting of the existing port into `block` and gives the port a new connection cookie.
  void RefreshExisting(const std::string& dvs, const std::string& port, std::string* block);
  Outcome SetPortConfig(const std::string& dvs, const PortConfigSpec& spec, const std::string& vif,
                        const std::string& gcf_path);
  Outcome PutPortFile(const std::string& dvs, const std::string& port, const std::string& gcf_path,
                      const std::map<std::string, std::string>& extra_configs);

  SwitchLibrary& library_;
  TransportZones& zones_;
  PortProperties& properties_;
  PortDataFiles& files_;
};

}  // namespace zem::zema
