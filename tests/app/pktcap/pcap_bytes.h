#pragma once

#include <cstdint>
#include <string>

#include "app/pktcap/stream/pcap_reader.h"

namespace zem::Tarvik::test_pcap {

inline std::string Header(uint32_t snap_length = 65'535) {
  const auto header = PcapReader::OwnHeader(snap_length);
  return {header.begin(), header.end()};
}

/// A record of the stream; its original length is 40 more than was captured.
inline std::string Record(uint32_t seconds, uint32_t microseconds, const std::string& data) {
  const uint32_t fields[] = {seconds, microseconds, static_cast<uint32_t>(data.size()),
                             static_cast<uint32_t>(data.size()) + 40};
  return std::string(reinterpret_cast<const char*>(fields), sizeof(fields)) + data;
}

}  // namespace zem::Tarvik::test_pcap
