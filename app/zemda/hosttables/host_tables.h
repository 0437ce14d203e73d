#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "app/zemda/base/shell_command.h"

namespace orlane::zem::ida {
class HostMsg;
}

namespace ZemDa {

/// What the host's own commands and files say.
///
/// Threads: the collector's.
class HostTables {
 public:
  /// As `ExecuteCommand`.
  using Run = std::function<int(const shellCommand& command, std::string* output)>;

  explicit HostTables(Run run, std::string capabilities = "/etc/orlane/networking/capability/");

  /// The virtual interfaces, then the physical ones.  A table that cannot be had is left out.
  void AddInterfaces(const std::map<std::string, std::string>& properties,
                     const std::vector<std::string>& management, orlane::zem::ida::HostMsg* host) const;
  void AddCapabilities(orlane::zem::ida::HostMsg* host) const;

 private:
  Run run_;
  std::string capabilities_;
};

}  // namespace ZemDa
