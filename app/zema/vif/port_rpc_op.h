#pragma once

#include <string>

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

/// Notes it, or forgets it, on the VIF's port.  False with the reason in `error`; `at` is where the port is,
/// empty when there is none.  Under the port lock.
bool UpdateDvPortRpcOp(VifContext& context, const VifRequest& request, const PortRpcOp& op, PortLocation* at,
                       std::string* error);

}  // namespace zem::zema
