#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace orlane::zem::monitoring {
class LeadershipChangedRequestMsg;
}

namespace zem::Tarvik {

/// What the link asks of the alarms provider above it.
///
/// Threads: all operations from any thread.
class ProviderHost {
 public:
  virtual ~ProviderHost() = default;

  /// The collector is told of the source with the next source sync.
  virtual void AddSourceId(const std::string& id) = 0;
  virtual std::map<std::string, uint32_t> GetPollingConfig() = 0;
  virtual bool IsCollectionEnabled() = 0;
  virtual void HandleLeadershipChange(
      const orlane::zem::monitoring::LeadershipChangedRequestMsg& request) = 0;
};

}  // namespace zem::Tarvik
