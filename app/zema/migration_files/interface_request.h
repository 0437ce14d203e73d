#pragma once

#include <string>

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem::zema {

struct MigrationRequest;

/// Writes the moves of interfaces and physical NICs into a configuration: its own moves go, its lists of
/// physical NICs and endpoints become what the request makes of them.  False with the reason in `error`; the
/// configuration is of no use then.
[[nodiscard]] bool PutIntoConfig(const MigrationRequest& request,
                                 orlane::zem::switching::HostConfigMsg* config, std::string* error);

}  // namespace zem::zema
