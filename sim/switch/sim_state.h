#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/switch/library_journal.h"
#include "sim/switch/tree/fault_rules.h"

namespace zem::sim {

/// Access from outside to the state of the host's switches: reads what the libraries have done, and does what
/// the host does to its switches.
///
/// Threads: all operations from any thread; other processes may change the same tree at the same time.
/// Errors: false or nothing when the named object does not exist.
class SwitchState {
 public:
  /// Creates the folders of the tree under ZEM_SIM_ROOT.
  SwitchState();

  struct Switch {
    std::string id;
    std::string name;
    std::string kind = "KLN";
    std::vector<std::string> zones;
    std::vector<std::string> uplinks;
  };
  /// Also replaces a switch that exists; its ports stay.
  [[nodiscard]] bool MakeSwitch(const Switch& host_switch);
  [[nodiscard]] bool RemoveSwitch(const std::string& id);
  std::vector<std::string> SwitchIds() const;

  std::vector<std::string> Ports(const std::string& dvs) const;
  /// Values by name; a text is returned without its terminating zero.
  std::map<std::string, std::string> PortProperties(const std::string& dvs, const std::string& port) const;
  std::optional<std::string> PortProperty(const std::string& dvs, const std::string& port,
                                          const std::string& name) const;
  [[nodiscard]] bool SetPortProperty(const std::string& dvs, const std::string& port, const std::string& name,
                                     const std::string& text);
  /// `place` is "host" or "global".
  std::optional<std::string> SwitchProperty(const std::string& dvs, const std::string& place,
                                            const std::string& name) const;
  [[nodiscard]] bool SetSwitchProperty(const std::string& dvs, const std::string& place,
                                       const std::string& name, const std::string& bytes);

  /// Simulates a restart of the host: switches lose their ports, and routers leave their switches.
  void RebootHost();
  /// Removes all ports of one switch.
  [[nodiscard]] bool LosePorts(const std::string& dvs);

  /// Adds a rule after the existing ones.  Returns false with the reason in `error` when it cannot be parsed.
  [[nodiscard]] bool AddFault(std::string_view line, std::string* error);
  /// Removes the rules of one function, or all for an empty name.
  void ClearFaults(std::string_view function);
  std::vector<std::string> Faults() const;

  /// What the libraries logged about their callers.
  LibraryJournal journal() const { return {}; }
};

}  // namespace zem::sim
