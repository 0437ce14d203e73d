#pragma once

#include <map>
#include <string>

#include "app/zema/vif/precreated_ports.h"
#include "framework/tasks/outcome.h"

namespace zem::zema {

struct VifContext;

/// Creates the ports that a user has made on the manager, before their VIFs are attached.
///
/// Threads: one.
class PrecreatedPortMaker {
 public:
  explicit PrecreatedPortMaker(VifContext& context) : context_(context) {}

  /// Creates the ports in the order of their VIFs and marks each request whose port exists.  Stops at the
  /// first port that cannot be created.
  Outcome CreatePorts(PrecreatedPorts::Map& ports);

 private:
  Outcome CreatePortForPrecreated(VifRequest& request);
  void ResolveVm(const std::string& vnic, std::string* gcf_path);
  std::string PathOfVm(const std::string& uuid);

  VifContext& context_;
  std::map<std::string, std::string> paths_;  // by VM
};

}  // namespace zem::zema
