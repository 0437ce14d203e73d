#pragma once

#include <optional>

#include "app/zema/manager/zem_manager.h"

namespace zem::zema {

struct VifContext;
struct VifRequest;

/// The manager wants the port back that the VIF had: it is found or brought back from its file, or a port of
/// the host's own is tied to the VIF for its security.  Gives what the manager is to be told, by a caller
/// that keeps nobody from the VIF meanwhile; nothing when this host is not set up.
///
/// Threads: the one that serves the request.
std::optional<VifSender::RestoreResponse> RestoreVif(VifContext& context, VifRequest& request);

}  // namespace zem::zema
