#pragma once

#include <boost/uuid/uuid.hpp>
#include <optional>

namespace zem {

/// The id of this host's transport node as the proxy process has named it; nothing until it has.
///
/// Threads: any.
std::optional<boost::uuids::uuid> TransportNodeId();

}  // namespace zem
