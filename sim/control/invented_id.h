#pragma once

#include <string>

namespace zem::sim {

/// A new uuid for something that a peer makes up by itself, such as a VM or a port.
///
/// It is random until `SeedInventions`.  From then on it follows from the seed, from what it is for, and from
/// how often one was asked for that, so that another node with the same seed calls its things the same.
///
/// Threads: any.
std::string InventedUuidText(const std::string& purpose);

/// Begins anew with this seed; an empty one is none.
void SeedInventions(std::string seed);

}  // namespace zem::sim
