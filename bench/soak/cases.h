#pragma once

namespace zem::bench {

/// The agent's clients under load while the proxy goes and comes back.  Returns false when an invariant
/// broke.
bool RunRestarts(int seconds);

/// The time of a manager's request to a vertical and back.  Returns false when a call failed.
bool RunRoad();

}  // namespace zem::bench
