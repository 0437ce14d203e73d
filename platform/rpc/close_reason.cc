#include "platform/rpc/close_reason.h"

namespace zem::rpc {

const char* CloseReasonToCStr(CloseReason reason) {
  switch (reason) {
    case CloseReason::kNone:
      return "NONE";
    case CloseReason::kProtocolError:
      return "PROTOCOL_ERROR";
    case CloseReason::kHeartbeatTimeout:
      return "HEARTBEAT_TIMEOUT";
    case CloseReason::kRemoteClose:
      return "REMOTE_CLOSE";
    case CloseReason::kTargetUnreachable:
      return "TARGET_UNREACHABLE";
    case CloseReason::kConnectionLost:
      return "CONNECTION_LOST";
    case CloseReason::kLocalClose:
      return "LOCAL_CLOSE";
  }
  return "UNKNOWN";
}

}  // namespace zem::rpc
