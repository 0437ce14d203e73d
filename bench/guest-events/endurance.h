#pragma once

#include <string>

namespace zem::bench {

/// Offers the engine events as fast as the guests can make them, for so long, and checks that each was
/// delivered, filtered or dropped, that memory stays bounded, and that a guest's timer is still heard.
/// Returns the number of failed checks.
int RunOverload(const std::string& folder, double seconds);

/// Starts and stops the engine so often while events come, and checks that no stop hangs and no callback or
/// record is left.  Returns the number of failed checks.
int RunRestarts(const std::string& folder, int count);

}  // namespace zem::bench
