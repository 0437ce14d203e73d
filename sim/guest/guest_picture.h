#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zem::sim::guest {

class GuestWorld;

/// The lines of the node's picture that show the guests and who is logged on to them.
std::vector<std::string> DrawGuests(const GuestWorld& world, size_t most);

}  // namespace zem::sim::guest
