#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "framework/dataplane/lcp_frame.h"
#include "proto/lcp/lcp.pb.h"

// The first byte chooses how the rest of the input is cut into reads; what a frame holds is parsed as the
// adapter does.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  using Event = zem::Tarvik::LcpFrameReader::Event;
  const size_t piece = 1 + data[0];
  zem::Tarvik::LcpFrameReader reader;
  size_t used = 1;
  while (used < size) {
    const std::span<uint8_t> space = reader.Space();
    if (space.empty()) std::abort();
    const size_t count = std::min({space.size(), piece, size - used});
    std::memcpy(space.data(), data + used, count);
    used += count;
    Event event = reader.Advance(count);
    if (event == Event::kHeader) event = reader.Advance(0);
    if (event == Event::kFrame) {
      const std::span<const uint8_t> frame = reader.frame();
      orlane::zem::lcp::LcpDpMsg message;
      static_cast<void>(message.ParseFromArray(frame.data() + zem::Tarvik::kLcpHeaderSize,
                                               static_cast<int>(frame.size() - zem::Tarvik::kLcpHeaderSize)));
    } else if (event != Event::kMore) {
      return 0;
    }
  }
  return 0;
}
