#pragma once

#include <map>
#include <string>

#include "app/zema/vif/precreated_ports.h"

namespace zem::zema {

struct VifContext;

/// Makes the ports that a user made on the manager before their VIFs come.
///
/// Threads: one.
class PrecreatedPortMaker {
 public:
  explicit PrecreatedPortMaker(VifContext& context) : context_(context) {}

  /// In the order of the VIFs; each one that is made is marked so.  False at the first that cannot be made,
  /// with the reason in `error`.
  bool CreatePorts(PrecreatedPorts::Map& ports, std::string* error);

 private:
  bool CreatePortForPrecreated(VifRequest& request, std::string* error);
  void ResolveVm(const std::string& vnic, std::string* gcf_path);
  std::string PathOfVm(const std::string& uuid);

  VifContext& context_;
  std::map<std::string, std::string> paths_;  // by VM
};

}  // namespace zem::zema
