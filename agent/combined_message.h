#pragma once

namespace orlane::zem::sha {
class AgentsMetricsMsg;
}

namespace zem::Tarvik {

/// What this process tells the node's health service of itself.  On the health client's thread.
void BuildCombinedMessage(orlane::zem::sha::AgentsMetricsMsg* message);

}  // namespace zem::Tarvik
