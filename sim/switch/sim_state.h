#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/switch/tree/fault_rules.h"

namespace zem::sim {

/// The state of the host's switches from outside: what the libraries have done, and what the host does to
/// them.
///
/// Threads: all operations from any thread; others may change the same tree meanwhile.
/// Errors: false or nothing when what is named is not there.
class SwitchState {
 public:
  /// Makes the folders of the tree under ZEM_SIM_ROOT.
  SwitchState();

  struct Switch {
    std::string id;
    std::string name;
    std::string kind = "KLN";
    std::vector<std::string> zones;
    std::vector<std::string> uplinks;
  };
  /// Also over one that is there, whose ports stay.
  [[nodiscard]] bool MakeSwitch(const Switch& host_switch);
  [[nodiscard]] bool RemoveSwitch(const std::string& id);
  std::vector<std::string> SwitchIds() const;

  std::vector<std::string> Ports(const std::string& dvs) const;
  /// Values by name; texts without the zero behind them.
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

  /// The host starts anew: no switch has ports, no router is on one.
  void RebootHost();
  /// One switch forgets its ports.
  [[nodiscard]] bool LosePorts(const std::string& dvs);

  /// Adds a rule behind the others; false with the reason in `error` when it does not read.
  [[nodiscard]] bool AddFault(std::string_view line, std::string* error);
  /// Those of one function, or all for an empty name.
  void ClearFaults(std::string_view function);
  std::vector<std::string> Faults() const;

  /// The lines of the logs, oldest first; those of calls that hold `part`.
  std::vector<std::string> Calls(std::string_view part = {}) const;
  std::vector<std::string> Violations() const;
  /// "DVSData_Alloc: 2 of process 17", for what a living process has been given and not given back.
  std::vector<std::string> Live() const;
  void ClearLogs();
};

}  // namespace zem::sim
