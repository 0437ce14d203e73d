#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/timeline/operation.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {

struct CorvdRequest;
class VifTurn;
struct PortConfigSpec;

/// One operation on a VIF.
struct VifRequest {
  // The kinds of operation.  The numbers up to kDetachLiveMove are the host's own.
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

  /// Begins the timeline of the operation.
  void BeginTimeline();

  /// The raw request, when it came from the host's socket and has to be answered; else null.
  std::shared_ptr<CorvdRequest> request;
  std::string op_id;
  int32_t op_code = kUnsupported;
  /// The operation that the host asked for; kUnsupported for a request of the agent's own.
  int32_t host_op_code = kUnsupported;
  std::string vif_id;
  /// The id of the logical switch, or "dvportgroup-..." for a port that exists only for security.
  std::string ls_id;
  /// The path of the VM's configuration file; "knlnic" for an interface of the host itself.
  std::string gcf_path;
  std::string port_id;
  std::string zone_id;
  /// The reason of a failure, for the host; empty on success.
  std::string error_text;
  std::string result_text;
  /// A ready description of the port.  When it is set, the operation does not wait for the manager.
  std::shared_ptr<PortConfigSpec> spec;
  /// Whether the port exists already.
  bool precreated = false;
  std::string security_switch_id;
  wft::TraceContext trace;
  /// Its timeline, and since when it waits.
  timeline::Carried carried{nullptr};
  std::string state_text;
  /// The request's place among the operations on its VIF, released when the operation ends.
  std::shared_ptr<VifTurn> turn;
};

}  // namespace zem::zema
