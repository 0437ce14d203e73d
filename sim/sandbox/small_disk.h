#pragma once

#include <cstddef>
#include <string>

namespace zem::sim {

/// Gives a folder a small file system of its own that can be filled.  Needs the right to mount, so it works
/// in a sandbox.  Errors: std::runtime_error with a readable text.

/// Puts such a small file system at `folder` and keeps the files in it.
void LimitDisk(const std::string& folder, const std::string& kib);
/// Fills the disk to the last byte; returns the number of bytes written.
size_t FillDisk(const std::string& folder);
/// Removes what FillDisk has written; returns false when there is nothing to remove.
bool FreeDisk(const std::string& folder);

}  // namespace zem::sim
