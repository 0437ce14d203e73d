#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/core/clock.h"

namespace zem::Tarvik {

/// The state of one instance of an alarm event, as its source has reported it.
struct ReportedEvent {
  std::string source_id;
  /// Empty for most sources.
  std::string qubio_id;
  /// The lower-case text of a uuid.
  std::string entity_id;
  uint16_t feature_id = 0;
  uint16_t event_type_id = 0;
  uint8_t status = 0;
  /// JSON.
  std::string context;
  /// Set by the queue.
  TimePoint enqueue_time{};

  size_t TextBytes() const { return source_id.size() + qubio_id.size() + entity_id.size() + context.size(); }
};

using SharedEvent = std::shared_ptr<ReportedEvent>;

}  // namespace zem::Tarvik
