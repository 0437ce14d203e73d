#pragma once

#include <string>

namespace zem::ctl {

/// Writes a file that the operator has named; a reader never sees half of it.  Throws Failure with the
/// reason.
void WriteOutputFile(const std::string& path, const std::string& bytes);

}  // namespace zem::ctl
