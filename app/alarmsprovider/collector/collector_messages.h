#pragma once

#include <cstdint>
#include <string>

namespace orlane::zem::monitoring {
class CollectorMpMsg;
}

namespace zem::Tarvik {

/// The `msg_type` of a CollectorMpMsg.
namespace CollectorMpType {
inline constexpr uint32_t kReset = 1;
inline constexpr uint32_t kEventReport = 2;
inline constexpr uint32_t kFullSyncResponse = 3;
inline constexpr uint32_t kSyncResponse = 4;
inline constexpr uint32_t kSourceSync = 5;
inline constexpr uint32_t kStatusReport = 6;
inline constexpr uint32_t kLeadershipChanged = 8;
}  // namespace CollectorMpType

/// The `msg_type` of a CollectorHostMsg.
namespace CollectorHostType {
inline constexpr uint32_t kFullSync = 1;
inline constexpr uint32_t kSync = 2;
inline constexpr uint32_t kResetResponse = 3;
inline constexpr uint32_t kSourceSyncResponse = 4;
inline constexpr uint32_t kStatusFullSync = 5;
inline constexpr uint32_t kLeadershipChangedResponse = 6;
}  // namespace CollectorHostType

/// The way to the manager's collector.
class CollectorSender {
 public:
  virtual ~CollectorSender() = default;

  /// Sends a message as a bus record of type `bus_type`.  Returns false, after a log line, when it was not
  /// sent.  From any thread; does not wait for the collector.
  [[nodiscard]] virtual bool SendToCollector(const orlane::zem::monitoring::CollectorMpMsg& message,
                                             const std::string& correlation_id, int32_t bus_type) = 0;
};

}  // namespace zem::Tarvik
