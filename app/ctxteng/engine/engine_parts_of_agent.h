#pragma once

#include <memory>

namespace zem {
class AsioZemProvider;
}

namespace Ctxt {

struct EngineParts;
class Idfw;

/// The engine as the agent runs it: the host's library and firewall, and all clients that there are.
EngineParts PartsOfAgent(zem::AsioZemProvider& provider);

/// The agent's identity firewall.
const std::shared_ptr<Idfw>& IdfwOfAgent();

}  // namespace Ctxt
