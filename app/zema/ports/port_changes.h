#pragma once

#include <string>

namespace zem::zema {

class PortDataFiles;
class PortProperties;
class SwitchLibrary;
class TransportZones;
class VifHolders;
class VifIndex;

/// Changes of ports that are there: VIFs come off, files move, operations are noted, ports go.
///
/// Threads: all operations from any thread; files and the library block, so none from a provider's.
/// Sequences of changes to one port are kept apart by their callers.
/// Ownership: holds what it is made of by reference.
/// Errors: 0, or -1 with the reason in `error`.
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
  /// are searched when the zone, the port or its state cannot be had, or the port holds another VIF.  0 also
  /// when there was nothing to do.
  int ClearVifFromPort(const std::string& zone, const std::string& port, const std::string& ls,
                       const std::string& vif, bool force_find, std::string* error);
  /// Takes the VIF off its ports of the logical switch, whichever host switch they are on.
  int FindAndClearExistingPortWithVifId(const std::string& ls, const std::string& vif, std::string* error);
  /// Takes the VIF off every port but `port`.
  int ClearVifFromPortOtherThan(const std::string& port, const std::string& vif, std::string* error);

  /// Moves the port's file to the VM's new directory.
  int UpdateGcfPath(const std::string& zone, const std::string& port, const std::string& new_gcf_path,
                    std::string* error);

  /// With `rpc_done` "false" notes on the port that the manager could not be told of `rpc_op`; with "true"
  /// removes the same note.
  int UpdateDvportRpcOp(const std::string& dvs, const std::string& port, const std::string& rpc_op,
                        const std::string& rpc_done, std::string* error);

  /// Nobody waits for the port's site configuration any more: clears the mark on the port and in its file.
  int ClearAttachmentState(const std::string& dvs, const std::string& port, std::string* error);

  /// Removes the port from its switch, and its file; with `vm_leaves` the files of all ports of the VM.
  int DeletePort(const std::string& dvs, const std::string& port, bool vm_leaves, std::string* error);

 private:
  int ClearExternalId(const std::string& dvs, const std::string& port, std::string* error);

  SwitchLibrary& library_;
  TransportZones& zones_;
  VifIndex& index_;
  VifHolders& holders_;
  PortProperties& properties_;
  PortDataFiles& files_;
};

}  // namespace zem::zema
