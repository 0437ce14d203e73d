#pragma once

#include <string>

namespace orlane::zem::switching {
class HostConfigMsg;
}

namespace zem::zema {

struct MigrationRequest;

/// Writes the moves of interfaces and physical NICs into a configuration: replaces the configuration's own
/// moves and updates its lists of physical NICs and endpoints.  Returns false and sets `error` when that
/// fails; the configuration must then not be used.
[[nodiscard]] bool PutIntoConfig(const MigrationRequest& request,
                                 orlane::zem::switching::HostConfigMsg* config, std::string* error);

}  // namespace zem::zema
