#pragma once

#include <string>

#include "framework/tasks/outcome.h"

namespace zem::zema {

struct PortLocation;
struct VifContext;
struct VifRequest;

/// The record on a port of an operation that could not be reported to the manager.
struct PortRpcOp {
  static constexpr const char* kAttach = "attach_port";
  static constexpr const char* kDetach = "detach_port";

  const char* operation;
  /// The operation has been reported: the record is removed.
  bool done;
  /// Where the port is, by the manager's answer; may be empty.
  const std::string& zone;
  const std::string& port;
  /// The VM's configuration path, beside which the port's file may be.  When it is empty the port is searched
  /// on the switches only.
  std::string gcf_path;
};

/// Writes the record onto the VIF's port, or removes it.  `at` becomes the port's location and stays empty
/// when there is no port.  The caller holds the port lock.
Outcome UpdateDvPortRpcOp(VifContext& context, const VifRequest& request, const PortRpcOp& op,
                          PortLocation* at);

}  // namespace zem::zema
