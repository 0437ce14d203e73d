#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "framework/tasks/outcome.h"

namespace zem::zema {

class SwitchLibrary;
class VifIndex;
struct PortLocation;

/// Reads and writes single properties of ports.  A write that puts a VIF on a port, or takes it off, is
/// recorded in the VIF index.
///
/// Threads: all operations from any thread; the library may block, so none from a provider's.  Sequences of
/// changes to one port are kept apart by their callers.
/// Ownership: holds both by reference.
/// Errors: a refused write is logged here.
class PortProperties {
 public:
  PortProperties(SwitchLibrary& library, VifIndex& index) : library_(library), index_(index) {}

  Outcome SetPortExtraConfig(const std::string& dvs, const std::string& port, const std::string& key,
                             const std::string& value);
  /// Returns 0 when the property is cleared, 1 when the port did not have it, or -1 after three failed tries,
  /// with the reason in `error`, which may be null.
  int ClearPortExtraConfig(const std::string& dvs, const std::string& port, const std::string& key,
                           std::string* error = nullptr);
  /// Returns the library's code.
  uint32_t GetPortExtraConfig(const std::string& dvs, const std::string& port, const std::string& key,
                              std::string* value);

  enum class Same { kYes, kNo, kUnknown };
  /// Tests whether a text property of the port has the value.  Returns kUnknown when the property is absent
  /// or cannot be read.
  Same Compare(const PortLocation& at, const char* property, const std::string& value) const;

  /// Clears the properties that tie the port to a VIF.
  [[nodiscard]] bool ClearPortOpaqueData(const std::string& dvs, const std::string& port);
  /// Does so on all ports of the switch.
  [[nodiscard]] bool ClearAllPortOpaqueData(const std::string& dvs);

  Outcome SetVlanPolicy(const std::string& dvs, const std::string& port, int32_t vlan,
                        const std::vector<std::pair<uint32_t, uint32_t>>& ranges);
  Outcome SetUplinkTeamingName(const std::string& dvs, const std::string& port, const std::string& teaming);

  /// Reads a property of the switch on this host.  Returns the library's code.
  uint32_t GetHostConfigProp(const std::string& dvs, const std::string& property, std::string* value);

 private:
  SwitchLibrary& library_;
  VifIndex& index_;
};

}  // namespace zem::zema
