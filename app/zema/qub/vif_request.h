#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/wft/workflow_util.h"

namespace zem::zema {

struct CorvdRequest;
struct PortConfigSpec;

/// What is asked about one VIF.
struct VifRequest {
  static constexpr int32_t kUnsupported = -1;
  static constexpr int32_t kFetchSiteConfig = 1004;

  /// From the host's socket, to which a reply is owed; may be null.
  std::shared_ptr<CorvdRequest> request;
  std::string op_id;
  int32_t op_code = kUnsupported;
  std::string vif_id;
  /// The logical switch; "dvportgroup-..." on a port that is there for security alone.
  std::string ls_id;
  /// The path of the VM's configuration file; "knlnic" for an interface of the host itself.
  std::string gcf_path;
  std::string port_id;
  std::string zone_id;
  /// Why it failed, for the host.
  std::string error_text;
  std::string result_text;
  /// A ready description of the port: the manager is not waited for.
  std::shared_ptr<PortConfigSpec> spec;
  /// The port is there already.
  bool precreated = false;
  std::string security_switch_id;
  wft::TraceContext trace;
  std::string state_text;
};

}  // namespace zem::zema
