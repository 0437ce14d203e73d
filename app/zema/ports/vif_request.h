#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/wft/workflow_util.h"

namespace zem::zema {

struct CorvdRequest;
class VifTurn;
struct PortConfigSpec;

/// What is asked about one VIF.
struct VifRequest {
  // What is asked; those up to kDetachLiveMove are the host's own numbers.
  static constexpr int32_t kUnsupported = -1;
  static constexpr int32_t kAttach = 1;
  static constexpr int32_t kDetach = 2;
  static constexpr int32_t kAttachToVifUuid = 8;
  static constexpr int32_t kAttachLiveMove = 9;
  static constexpr int32_t kDetachLiveMove = 10;
  static constexpr int32_t kRestore = 11;
  static constexpr int32_t kSyncAttach = 1001;
  static constexpr int32_t kSyncDetach = 1002;
  static constexpr int32_t kManagerDetach = 1003;
  static constexpr int32_t kFetchSiteConfig = 1004;

  /// The name of `op_code`.
  std::string KindText() const;
  /// For the log.
  std::string ToString() const;

  /// From the host's socket, to which a reply is owed; may be null.
  std::shared_ptr<CorvdRequest> request;
  std::string op_id;
  int32_t op_code = kUnsupported;
  /// The operation that the host asked for; kUnsupported for a request of the agent's own.
  int32_t host_op_code = kUnsupported;
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
  /// The request's place among those on its VIF; whoever carries it out gives the place back.
  std::shared_ptr<VifTurn> turn;
};

}  // namespace zem::zema
