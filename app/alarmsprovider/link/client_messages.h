#pragma once

#include <cstdint>

namespace zem::Tarvik {

/// What the endpoint id of an alarm client begins with, and the key of its entry; its source id follows.
inline constexpr const char* kClientPrefix = "ALARMSLIB_EP::";

/// The `msg_type` of a MonitoringSubClientRequestMsg.
namespace SubClientRequestType {
inline constexpr uint32_t kWelcome = 1;
inline constexpr uint32_t kFullSync = 2;
inline constexpr uint32_t kSync = 3;
}  // namespace SubClientRequestType

/// The `msg_type` of a MonitoringSubClientResponseMsg.
namespace SubClientResponseType {
inline constexpr uint32_t kFullSync = 1;
inline constexpr uint32_t kSync = 2;
}  // namespace SubClientResponseType

/// The `msg_type` of a MonitoringStatusSourceMsg.
namespace StatusSourceType {
inline constexpr uint32_t kHello = 1;
inline constexpr uint32_t kFullSync = 2;
inline constexpr uint32_t kReport = 3;
}  // namespace StatusSourceType

/// The `msg_type` of a MonitoringStatusProviderMsg.
namespace StatusProviderType {
inline constexpr uint32_t kSendFullSync = 1;
inline constexpr uint32_t kFullSyncReceived = 2;
inline constexpr uint32_t kConfiguration = 3;
}  // namespace StatusProviderType

}  // namespace zem::Tarvik
