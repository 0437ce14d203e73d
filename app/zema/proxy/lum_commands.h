#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zem::zema {

/// Numbers of the calls to the management proxy; text commands have one of these numbers.
enum class LumOperation : uint32_t {
  kTextCommand = 10,
  kApplyLogicalSwitches = 11,
  kReadEndpointAddresses = 12,
  kHostProfile = 14,
  kSetTransportNodeId = 15,
  kVmPathOfVif = 17,
  kVmsOnPortGroups = 18,
  kInstallPreCheck = 19,
  kDisableRuntimeUpdates = 22,
};

/// The calls to the host's management API, independent of how they are transported.
///
/// Threads: any; calls are serial and may take minutes, so none may be made from a provider's thread.
class LumCommands {
 public:
  static constexpr int kSucceeded = 0;
  static constexpr int kFailed = -1;
  /// Results of binary calls: the script's own status, or kRpcSocketFailure.
  static constexpr int kRpcSucceeded = 1;
  static constexpr int kRpcSocketFailure = 2;
  /// The output of a text command that got no reply.
  static constexpr std::string_view kNotInitialized = "LumHandler not initialized";
  static constexpr std::string_view kWriteFailed = "socket write failed";
  static constexpr std::string_view kReadFailed = "socket read failed";

  virtual ~LumCommands() = default;

  /// Returns 0 when the reply is `expected`, or any reply when `expected` is empty; otherwise -1.  Sets `out`
  /// to the reply or to the error.
  ///
  /// A question that expects "ok" for yes has a third outcome: no answer.  See IsUnanswered.
  virtual int InvokeCommand(const std::string& command, const std::string& expected, std::string* out) = 0;

  /// Returns the script's status (1: success), or 2 when the socket failed.
  virtual int InvokeRPC(LumOperation operation, std::string_view data, std::string* out) = 0;

  /// Whether the output of a failed text command means that no reply came.
  static bool IsUnanswered(std::string_view out) {
    return out == kNotInitialized || out == kWriteFailed || out == kReadFailed;
  }
};

}  // namespace zem::zema
