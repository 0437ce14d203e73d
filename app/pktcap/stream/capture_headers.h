#pragma once

#include <array>
#include <cstdint>

#include "app/pktcap/stream/pcap_reader.h"

namespace zem::Tarvik {

inline constexpr size_t kGreHeaderSize = 8;
inline constexpr size_t kCaptureHeaderSize = 28;

/// The header of a packet in GRE: an Ethernet frame, under a key that tells direction and virtual network.
/// `incoming` is the direction bit; a `vni` of 0 or of more than 24 bits is left out.
std::array<char, kGreHeaderSize> GreHeader(bool incoming, uint32_t vni);

/// The header of a packet that carries its place and time in the capture.
std::array<char, kCaptureHeaderSize> CaptureHeader(const PcapRecord& record, uint32_t serial);

}  // namespace zem::Tarvik
