#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace orlane::zem {
class TenantContextMsg;
class UuidMsg;
namespace context::ids {
class EventInfo;
}
}  // namespace orlane::zem

namespace IdsEvtEng {

struct IdsEvent;

/// What an entry says beyond its event.
struct EventLookups {
  std::function<std::optional<std::string>(uint32_t user_hash)> user_name;
  /// False when the rule's tenant is not known.
  std::function<bool(uint32_t rule_id, orlane::zem::TenantContextMsg* tenant)> tenant;
};

/// The entry of a message to the manager.
void BuildEventInfo(const IdsEvent& event, const EventLookups& lookups,
                    orlane::zem::context::ids::EventInfo* info);
/// What an entry for Kafka has in addition: names and values.
void AddMetadata(const IdsEvent& event, orlane::zem::context::ids::EventInfo* info);
/// The identifier of the event's capture.
void SetCaptureId(const IdsEvent& event, orlane::zem::UuidMsg* id);

}  // namespace IdsEvtEng
