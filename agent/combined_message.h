#pragma once

namespace orlane::zem::sha {
class AgentsMetricsMsg;
}

namespace zem::Tarvik {

/// Fills the report of this process for the node's health service.  Called on the health client's thread.
void BuildCombinedMessage(orlane::zem::sha::AgentsMetricsMsg* message);

}  // namespace zem::Tarvik
