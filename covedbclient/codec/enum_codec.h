#pragma once

namespace zem {

/// An enumeration that the store counts from another number than the manager's messages.
struct EnumRule {
  int first;  ///< of the store's values
  int last;
  int shift;  ///< the store's value less the message's
  const char* error;
};

inline constexpr EnumRule kUplinkTypeRule{1, 2, 1, "Invalid UplinkMsg_UplinkType"};
inline constexpr EnumRule kLacpModeRule{1, 2, 1, "Invalid LagConfigMsg_LacpMode"};
inline constexpr EnumRule kLoadBalanceRule{1, 5, 1, "Invalid LagConfigMsg_LoadBalanceAlgo"};
inline constexpr EnumRule kLacpTimeoutRule{1, 2, 1, "Invalid LagConfigMsg_LacpTimeoutType"};
inline constexpr EnumRule kTeamingPolicyRule{1, 3, 1, "Invalid UplinkProfileMsg_TeamingPolicyType"};
inline constexpr EnumRule kSwitchModeRule{1, 4, 1, "Invalid HostSwitchMsg_SwitchMode"};
inline constexpr EnumRule kHighPerformanceTypeRule{0, 3, 0, "Invalid HighPerformanceConfigTypeEnum"};
inline constexpr EnumRule kPhaseRule{1, 2, 0, "Invalid HostConfigMsg_Phase"};

}  // namespace zem
