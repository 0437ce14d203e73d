#pragma once

namespace zem::bench {

/// The agent's clients under load while the proxy goes and comes back.  False when an invariant broke.
bool RunRestarts(int seconds);

/// What a request of the manager costs on its road to a vertical and back.  False when a call failed.
bool RunRoad();

}  // namespace zem::bench
