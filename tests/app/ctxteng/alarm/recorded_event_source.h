#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/monitoring/event_source.h"

namespace zem::test {

/// The alarm library's functions in this test program: sources with their instances, read and failed from
/// outside.  Each call can be made to fail.
///
/// Threads: all operations from any thread.  One object at a time.
class RecordedEventSource {
 public:
  struct Instance {
    bool raised = false;
    std::string context;
    int changes = 0;  // calls that set it
  };
  enum class Call { kCreate, kConfigCallback, kPollCallback, kStart, kSet, kDelete };

  RecordedEventSource();
  ~RecordedEventSource();

  void Fail(std::optional<Call> call);
  /// The configuration that a source gets at its start.
  void SetConfigs(std::vector<EventSourceConfig> configs);
  /// Calls the source's callback, as the library's thread does.
  void Configure(const std::string& source, const std::vector<EventSourceConfig>& configs);
  void Poll(const std::string& source, const std::vector<uint16_t>& event_types);

  /// Sources that exist.
  std::vector<std::string> Sources() const;
  /// The instances of a source that exists or existed, by event type and low half of the entity.
  std::map<std::pair<uint16_t, uint64_t>, Instance> Instances(const std::string& source) const;
  /// Copy of an instance; a default one when there is none.
  Instance Get(const std::string& source, uint16_t event_type, uint64_t entity_low = 0) const;
};

}  // namespace zem::test
