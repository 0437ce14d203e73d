#pragma once

#include <optional>
#include <string_view>

#include "framework/cli/json_writer.h"
#include "platform/timeline/operation.h"

namespace zem::Tarvik {

/// An operation as "get/why" shows it; without its steps for a list.
JsonValue TimelineJson(const timeline::OperationReading& operation, bool with_steps);

/// What TimelineJson has written, with its steps; nothing when `text` is something else.
std::optional<timeline::OperationReading> ReadTimeline(std::string_view text);

}  // namespace zem::Tarvik
