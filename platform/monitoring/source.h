#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/monitoring/event_configs.h"
#include "platform/monitoring/event_source.h"

namespace zem {
class AsioZemProvider;
}

namespace zem::monitoring {

class Subscription;

/// One event source; see event_source.h.
class EventSource {
 public:
  EventSource(const std::string& name, uint16_t feature_id);
  ~EventSource();

  void SetConfigCallback(EventSourceConfigCallback callback);
  void SetPollCallback(std::vector<uint16_t> event_types, EventSourcePollCallback callback);
  void Start();

  int SetSample(uint16_t event_type_id, const EventSourceEntity& entity, bool raised,
                const std::string& context);
  int RemoveEntities(uint16_t event_type_id, const EventSourceEntity* entities, size_t count);

 private:
  void ReadConfigs();

  const std::unique_ptr<AsioZemProvider> callback_provider_;
  const std::shared_ptr<Subscription> subscription_;
  EventConfigs configs_;  // used on the callback provider
  EventSourceConfigCallback config_callback_;
  EventSourcePollCallback poll_callback_;
  std::vector<uint16_t> polled_;
  std::atomic<bool> started_ = false;
};

}  // namespace zem::monitoring
