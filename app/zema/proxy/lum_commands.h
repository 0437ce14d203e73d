#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zem::zema {

/// Numbers of the calls to the management proxy; a text command is one of them.
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

/// The calls to the host's management API, apart from how they get there.
///
/// Threads: any; calls are serial and may take minutes, so none may be made from a provider's thread.
class LumCommands {
 public:
  static constexpr int kSucceeded = 0;
  static constexpr int kFailed = -1;
  /// Results of binary calls: the script's own status, or this.
  static constexpr int kRpcSucceeded = 1;
  static constexpr int kRpcSocketFailure = 2;
  /// What a text command tells in place of the reply that it could not get.
  static constexpr std::string_view kNotInitialized = "LumHandler not initialized";
  static constexpr std::string_view kWriteFailed = "socket write failed";
  static constexpr std::string_view kReadFailed = "socket read failed";

  virtual ~LumCommands() = default;

  /// 0 when the reply is `expected`, or whatever it is when `expected` is empty; else -1.  `out` is the
  /// reply, or what went wrong.
  ///
  /// A question with "ok" for yes has a third outcome, that nobody has answered: see IsUnanswered.
  virtual int InvokeCommand(const std::string& command, const std::string& expected, std::string* out) = 0;

  /// The script's status (1: success), or 2 when the socket failed.
  virtual int InvokeRPC(LumOperation operation, std::string_view data, std::string* out) = 0;

  /// Whether what a failed text command told is that no reply came.
  static bool IsUnanswered(std::string_view out) {
    return out == kNotInitialized || out == kWriteFailed || out == kReadFailed;
  }
};

}  // namespace zem::zema
