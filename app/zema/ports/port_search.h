#pragma once

#include <string>
#include <vector>

#include "app/zema/ports/port_location.h"
#include "framework/tasks/outcome.h"

namespace zem::zema {

class PortDataFiles;
class PortProperties;
class SwitchLibrary;
class TransportZones;
class VifHolders;
class VifIndex;
struct PortFileEntry;

/// Finds the ports of VIFs, on the switches and in the files beside their VMs; a port that is found in a file
/// is put back on its switch.
///
/// Threads: all operations from any thread; files and the library block, so none from a provider's.
/// Sequences of changes to one port are kept apart by their callers.
/// Ownership: holds what it is made of by reference.
class PortSearch {
 public:
  struct Parts {
    SwitchLibrary& library;
    TransportZones& zones;
    VifIndex& index;
    VifHolders& holders;
    PortProperties& properties;
    PortDataFiles& files;
  };
  explicit PortSearch(Parts parts)
      : library_(parts.library),
        zones_(parts.zones),
        index_(parts.index),
        holders_(parts.holders),
        properties_(parts.properties),
        files_(parts.files) {}

  /// Looks for the VIF's port on the switches, then in the files of the VM.  An empty `gcf_path` becomes the
  /// directory of the VM whose port it is.
  Outcome FindPortByVifUuid(const std::string& vif, const std::string& ls, std::string* gcf_path,
                            PortLocation* found);

  /// Returns all ports with that key: a key is unique only within its switch.
  std::vector<PortLocation> PortsOfKey(const std::string& port) const;

  /// Looks for the port that the VIF had before, to read what is written on it, in the files of the VM alone;
  /// puts the port on the switch of `new_zone` if it is not there.
  Outcome FindPortToFetchVMTags(const std::string& vif, const std::string& ls, const std::string& gcf_path,
                                const std::string& new_zone, PortLocation* found);

 private:
  bool RestoreFromFiles(const std::string& vif, const std::string& ls, const std::string& directory,
                        PortLocation* found);
  bool TakeBack(const PortFileEntry& file, const std::string& directory, const std::string& vif,
                const std::string& ls);
  bool AddFromFile(const PortFileEntry& file, const std::string& vif, const std::string& bytes);
  bool TakeLeftOver(const PortFileEntry& file, const std::string& dvs, const std::string& vif,
                    const std::string& ls);
  bool RestorePort(const std::string& dvs, const std::string& port, const std::string& file);

  SwitchLibrary& library_;
  TransportZones& zones_;
  VifIndex& index_;
  VifHolders& holders_;
  PortProperties& properties_;
  PortDataFiles& files_;
};

}  // namespace zem::zema
