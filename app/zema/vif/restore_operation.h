#pragma once

#include <optional>

#include "app/zema/manager/zem_manager.h"

namespace zem::zema {

struct VifContext;
struct VifRequest;

/// Restores the VIF's port for the manager: finds it, or brings it back from its file, or ties a port of the
/// host's own to the VIF for its security.  Returns the answer for the manager, which the caller sends after
/// it has released the VIF, or nothing when this host is not set up for operation.
///
/// Threads: the one that serves the request.
std::optional<VifSender::RestoreResponse> RestoreVif(VifContext& context, VifRequest& request);

}  // namespace zem::zema
