// The filter's stream may be anything: whatever it is and however it is cut, each packet comes out as it went
// in, and no byte beyond the stream is looked at.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/pktcap/stream/pcap_reader.h"

namespace {

using zem::Tarvik::PcapReader;
using zem::Tarvik::PcapRecord;

// What comes out of a stream that arrives in pieces of a size.
std::string Take(const uint8_t* data, size_t size, size_t piece) {
  PcapReader reader;
  std::string out;
  while (size > 0) {
    const size_t part = std::min(piece, size);
    const auto space = reader.Space(part);
    std::memcpy(space.data(), data, part);
    reader.Filled(part);
    data += part;
    size -= part;
    if (!reader.has_header()) {
      const auto taken = reader.TakeHeader();
      if (taken == PcapReader::Taken::kForeign) return out;
      if (taken == PcapReader::Taken::kWhole) out += reader.header();
    }
    if (!reader.has_header()) continue;
    PcapRecord record;
    PcapReader::Taken taken;
    while ((taken = reader.TakeRecord(&record)) == PcapReader::Taken::kWhole) {
      if (record.data.size() != record.captured_length) std::abort();
      out += record.whole;
    }
    if (taken == PcapReader::Taken::kForeign) return out;
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string whole = Take(data, size, std::max<size_t>(size, 1));
  if (size < whole.size() || !std::equal(whole.begin(), whole.end(), reinterpret_cast<const char*>(data))) {
    std::abort();
  }
  if (Take(data, size, 7) != whole) std::abort();
  return 0;
}
