#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/monitoring/event_source.h"

namespace zem::monitoring {

/// The configuration of the events of one feature: the catalogue's, with the customizations of a file.
///
/// Threads: none of its own; the owner guards it.
class EventConfigs {
 public:
  EventConfigs(uint16_t feature_id, std::string path);

  /// Reads the file and returns the configurations that differ from those returned before: the first time
  /// all.  A file that is missing or does not parse changes nothing but the first time.
  std::vector<EventSourceConfig> Changed();

 private:
  const uint16_t feature_id_;
  const std::string path_;
  std::map<uint16_t, EventSourceConfig> known_;
};

}  // namespace zem::monitoring
