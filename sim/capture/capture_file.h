#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zem::sim::capture {

/// A capture file as tools that share no code with the agent read it.
struct CaptureFile {
  uint64_t packets = 0;
  std::string encapsulation;
  /// It ends within a packet.
  bool cut_short = false;
  /// The numbers of the packets, in the file's order; a packet that bears none is -1.
  std::vector<int64_t> numbers;
  /// The longest packet in it, in bytes that were captured.
  uint64_t longest = 0;
};

/// Reads a file with capinfos and tshark.  Throws std::runtime_error when they cannot.
CaptureFile ReadCaptureFile(const std::string& path);

}  // namespace zem::sim::capture
