#pragma once

namespace zem::zema {

struct VifContext;
struct VifRequest;

/// The manager wants the port back that the VIF had: it is found or brought back from its file, or a port of
/// the host's own is tied to the VIF for its security; the manager is told the outcome.
///
/// Threads: the one that serves the request.
void RestoreVif(VifContext& context, VifRequest& request);

}  // namespace zem::zema
