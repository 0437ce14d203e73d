#pragma once

#include <cstddef>
#include <string>

namespace zem::sim {

/// A folder with a disk of its own that can be filled.  Of the sandbox: needs the right to mount.
/// Errors: std::runtime_error with a text for people.

/// Gives `folder`, with the files that are in it, so small a disk.
void LimitDisk(const std::string& folder, const std::string& kib);
/// Fills the disk to the last byte; gives how many were written.
size_t FillDisk(const std::string& folder);
/// Takes back what FillDisk has written; false when there is nothing.
bool FreeDisk(const std::string& folder);

}  // namespace zem::sim
