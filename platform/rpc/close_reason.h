#pragma once

namespace zem::rpc {

/// Why a channel or a connection ended.
enum class CloseReason : int {
  kNone = 0,
  /// The peer sent what the protocol does not allow.
  kProtocolError = 1,
  /// The peer stayed silent for longer than the heartbeat allows.
  kHeartbeatTimeout = 2,
  /// The peer closed this channel, or its server stopped.
  kRemoteClose = 3,
  /// The target's id left the gateway's routes; the connection lives.
  kTargetUnreachable = 4,
  /// The connection that carried the channel ended, whatever the cause.
  kConnectionLost = 5,
  /// Closed from this side: teardown, stop of the provider, end of the last stub.
  kLocalClose = 6,
};

const char* CloseReasonToCStr(CloseReason reason);

}  // namespace zem::rpc
