#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/zema/ports/port_location.h"

namespace zem::zema {

class PortProperties;
class SwitchLibrary;
class TransportZones;
class VifIndex;

/// Finds the ports that hold a VIF: in the index where it knows them, else by a walk over all ports, which
/// also renews the index.
///
/// Threads: all operations from any thread; the library may block, so none from a provider's.
/// Ownership: holds its arguments by reference.
class VifHolders {
 public:
  VifHolders(SwitchLibrary& library, PortProperties& properties, TransportZones& zones, VifIndex& index)
      : library_(library), properties_(properties), zones_(zones), index_(index) {}

  /// The VIF's port on the logical switch.
  std::optional<PortLocation> OnNetwork(const std::string& vif, const std::string& ls);
  /// All ports of the logical switch that hold the VIF, for a caller that clears them.
  std::vector<PortLocation> AllToClear(const std::string& vif, const std::string& ls);
  /// All ports that hold the VIF but `port`.
  std::vector<PortLocation> OtherThan(const std::string& port, const std::string& vif);

  /// Reads all ports again, after something that may have changed ports without the agent.  Returns false
  /// when not all ports could be read: the next search reads them.
  bool RefreshVifIndex();
  /// The host may have changed any port: the next search goes through all ports.
  void ForgetVifIndex();
  /// The host may have put the VIF on a port itself: the next search for the VIF goes through all ports.
  void DoubtVif(const std::string& vif);

 private:
  /// Walks over all ports once and collects the holders of `vif`, which may be null.  Returns false when not
  /// all ports could be read.
  bool ReadVifs(const std::string* vif, std::vector<PortLocation>* holders);
  /// The ports that hold the VIF, in the order of the walk.
  std::vector<PortLocation> WalkForVif(const std::string& vif);
  /// Returns the VIF's ports by the index, without those of the key `except`, after asking each whether it
  /// holds the VIF.  Returns nothing when the index does not know the VIF or is out of date.
  std::optional<std::vector<PortLocation>> AskIndex(const std::string& vif, const std::string& except);
  bool KnowsAll(const std::optional<std::vector<PortLocation>>& holders, const std::string& vif) const;
  /// Returns those of `holders` that belong to the logical switch.  `then` is appended to the log line of
  /// each.
  std::vector<PortLocation> OfNetwork(const std::vector<PortLocation>& holders, const std::string& ls,
                                      const char* then) const;

  SwitchLibrary& library_;
  PortProperties& properties_;
  TransportZones& zones_;
  VifIndex& index_;
};

}  // namespace zem::zema
