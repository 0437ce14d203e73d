#pragma once

#include <cstdint>
#include <string>

namespace zem::sim {

/// Writes a capture file of `packets` TCP packets of one connection, as a capture tool does, and gives its
/// bytes.  Throws std::runtime_error.
std::string WriteCapture(const std::string& path, uint64_t flow_id, uint32_t packets);

}  // namespace zem::sim
