#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace zem::sim {

/// The processes of the node that carry this name, whatever their command line is; ended ones that nobody has
/// waited for as well.
std::vector<pid_t> ProcessesNamed(const std::string& name);

}  // namespace zem::sim
