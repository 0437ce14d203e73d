#pragma once

namespace zem::zema {

/// Whether operations on VIFs that begin from now on leave a timeline; they do unless a benchmark measures
/// what that costs.
void KeepVifTimelines(bool keep);

}  // namespace zem::zema
