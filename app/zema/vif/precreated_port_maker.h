#pragma once

#include <map>
#include <string>

#include "app/zema/vif/precreated_ports.h"
#include "framework/tasks/outcome.h"

namespace zem::zema {

struct VifContext;

/// Makes the ports that a user made on the manager before their VIFs come.
///
/// Threads: one.
class PrecreatedPortMaker {
 public:
  explicit PrecreatedPortMaker(VifContext& context) : context_(context) {}

  /// Makes the ports in the order of their VIFs, and marks each that is made.  Ends at the first port that
  /// cannot be made.
  Outcome CreatePorts(PrecreatedPorts::Map& ports);

 private:
  Outcome CreatePortForPrecreated(VifRequest& request);
  void ResolveVm(const std::string& vnic, std::string* gcf_path);
  std::string PathOfVm(const std::string& uuid);

  VifContext& context_;
  std::map<std::string, std::string> paths_;  // by VM
};

}  // namespace zem::zema
