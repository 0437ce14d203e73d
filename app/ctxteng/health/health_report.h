#pragma once

#include <functional>
#include <memory>
#include <string>

namespace orlane::zem::context {
class HealthStatusMsg;
}

namespace Ctxt {

struct VmData;

/// The guest of this vc uuid, or null.
using GuestLookup = std::function<std::shared_ptr<const VmData>(const std::string& vc_uuid)>;

/// Converts the multiplexer's health text (XML) to the manager's message.  A text that cannot be read, and
/// one of more than 4 MiB or 100 levels of elements, gives a message that says so; it never throws.
///
/// Threads: any thread; `guest` is called on it.
orlane::zem::context::HealthStatusMsg BuildHealthReport(const std::string& xml, const GuestLookup& guest);

}  // namespace Ctxt
