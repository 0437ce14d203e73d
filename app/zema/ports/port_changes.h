#pragma once

#include <string>

#include "framework/tasks/outcome.h"

namespace zem::zema {

class PortDataFiles;
class PortProperties;
class SwitchLibrary;
class TransportZones;
class VifHolders;
class VifIndex;

/// Changes existing ports: takes VIFs off them, moves their files, records pending operations, deletes them.
///
/// Threads: all operations from any thread; files and the library block, so none from a provider's.
/// Sequences of changes to one port are kept apart by their callers.
/// Ownership: holds what it is made of by reference.
class PortChanges {
 public:
  struct Parts {
    SwitchLibrary& library;
    TransportZones& zones;
    VifIndex& index;
    VifHolders& holders;
    PortProperties& properties;
    PortDataFiles& files;
  };
  explicit PortChanges(Parts parts)
      : library_(parts.library),
        zones_(parts.zones),
        index_(parts.index),
        holders_(parts.holders),
        properties_(parts.properties),
        files_(parts.files) {}

  /// Takes the VIF off the port when the port belongs to the logical switch.  With `force_find` all switches
  /// are searched when the zone, the port or its state is not known, or when the port holds another VIF.
  /// Having nothing to clear is no failure.
  Outcome ClearVifFromPort(const std::string& zone, const std::string& port, const std::string& ls,
                           const std::string& vif, bool force_find);
  /// Takes the VIF off its ports of the logical switch, whichever host switch they are on.
  Outcome FindAndClearExistingPortWithVifId(const std::string& ls, const std::string& vif);
  /// Takes the VIF off every port but `port`.
  Outcome ClearVifFromPortOtherThan(const std::string& port, const std::string& vif);

  /// Moves the port's file to the VM's new directory.
  Outcome UpdateGcfPath(const std::string& zone, const std::string& port, const std::string& new_gcf_path);

  /// With `rpc_done` "false" records on the port that the operation `rpc_op` could not be reported to the
  /// manager; with "true" removes that record.
  Outcome UpdateDvportRpcOp(const std::string& dvs, const std::string& port, const std::string& rpc_op,
                            const std::string& rpc_done);

  /// Clears the mark, on the port and in its file, by which the manager waits for the port's site
  /// configuration.
  Outcome ClearAttachmentState(const std::string& dvs, const std::string& port);

  /// Removes the port from its switch, and its file; with `vm_leaves` the files of all ports of the VM.
  Outcome DeletePort(const std::string& dvs, const std::string& port, bool vm_leaves);

 private:
  Outcome ClearExternalId(const std::string& dvs, const std::string& port);

  SwitchLibrary& library_;
  TransportZones& zones_;
  VifIndex& index_;
  VifHolders& holders_;
  PortProperties& properties_;
  PortDataFiles& files_;
};

}  // namespace zem::zema
