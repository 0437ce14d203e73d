#pragma once

#include <string>

#include "framework/tasks/outcome.h"

namespace zem::zema {

struct PortLocation;
struct VifContext;
struct VifRequest;

/// What is noted on a port of an operation that the manager could not be told.
struct PortRpcOp {
  static constexpr const char* kAttach = "attach_port";
  static constexpr const char* kDetach = "detach_port";

  const char* operation;
  /// The manager knows: the note goes.
  bool done;
  /// Where the port is, as far as the manager has said.
  const std::string& zone;
  const std::string& port;
  /// Where the port's file may be; empty: the port is looked for on the switches alone.
  std::string gcf_path;
};

/// Writes the note onto the VIF's port, or removes it.  `at` takes where the port is, and stays empty when
/// there is none.  The caller holds the port lock.
Outcome UpdateDvPortRpcOp(VifContext& context, const VifRequest& request, const PortRpcOp& op,
                          PortLocation* at);

}  // namespace zem::zema
