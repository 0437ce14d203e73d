#pragma once

#include <string>

namespace orlane::zem::ida {
class HostMsg;
}

namespace ZemDa {

/// Adds what the files of the folder say that the host can do, in the order of their names.  A file that
/// cannot be read is logged and left out.
void ReadCapabilities(const std::string& folder, orlane::zem::ida::HostMsg* host);

}  // namespace ZemDa
