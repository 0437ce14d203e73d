#pragma once

#include <optional>
#include <string_view>

#include "platform/core/uuid.h"
#include "platform/monitoring/event_source.h"

namespace Ctxt {

/// The entity that stands for the whole node.
inline constexpr std::string_view kNodeEntity = "00000000-0000-0000-0000-000000000000";

/// Nothing when the text is not a uuid of 36 characters.
inline std::optional<EventSourceEntity> ParseEntityId(std::string_view text) {
  const auto uuid = zem::ParseUuid(text);
  if (!uuid) return std::nullopt;
  const auto [high, low] = zem::UuidHalves(*uuid);
  return EventSourceEntity{high, low};
}

}  // namespace Ctxt
