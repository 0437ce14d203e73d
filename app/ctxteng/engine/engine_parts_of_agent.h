#pragma once

namespace zem {
class AsioZemProvider;
}

namespace Ctxt {

struct EngineParts;

/// The engine as the agent runs it: the host's library and firewall, and all clients that there are.
EngineParts PartsOfAgent(zem::AsioZemProvider& provider);

}  // namespace Ctxt
