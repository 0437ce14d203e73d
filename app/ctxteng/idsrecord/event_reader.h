#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "app/ctxteng/idsrecord/ids_event.h"

namespace IdsEvtEng {

class JsonLine;

/// Parses one line of the detection process and says what it announces; kOtherEvent, after a log line, when
/// it is not JSON or does not say.
EventType ReadEventType(std::string_view text, JsonLine* line);

/// The record of an alert.  A member that is missing or of another kind is logged and keeps the record's
/// default.
std::unique_ptr<IdsEvent> ReadAlert(const JsonLine& line);
/// The record of a capture's notice, from the members that a notice has.
std::unique_ptr<IdsEvent> ReadCapture(const JsonLine& line);

}  // namespace IdsEvtEng
