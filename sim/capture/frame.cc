#include "sim/capture/frame.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <stdexcept>

namespace zem::sim::capture {
namespace {

constexpr std::string_view kMark = "zem-frame ";
constexpr size_t kIpHeader = 20;
constexpr size_t kUdpHeader = 8;
constexpr uint8_t kGuestMac[] = {0x02, 0x60, 0, 0, 0, 1};
constexpr uint8_t kPeerMac[] = {0x02, 0x60, 0, 0, 0, 9};

void Put16(std::string* bytes, size_t number) {
  bytes->push_back(static_cast<char>(number >> 8));
  bytes->push_back(static_cast<char>(number));
}

void PutAddress(std::string* bytes, const std::string& text) {
  in_addr address;
  if (::inet_pton(AF_INET, text.c_str(), &address) != 1) throw std::runtime_error("no IPv4 address: " + text);
  bytes->append(reinterpret_cast<const char*>(&address), sizeof(address));
}

uint16_t Checksum(std::string_view header) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < header.size(); i += 2) {
    sum += static_cast<uint32_t>(static_cast<uint8_t>(header[i]) << 8 | static_cast<uint8_t>(header[i + 1]));
  }
  while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

}  // namespace

std::string FrameBytes(const Frame& frame, uint64_t number) {
  std::string payload = std::string(kMark) + std::to_string(number) + " ";
  const size_t headers = sizeof(kGuestMac) * 2 + 2 + (frame.vlan != 0 ? 4 : 0) + kIpHeader + kUdpHeader;
  if (frame.size > headers + payload.size()) payload.resize(frame.size - headers, '.');
  std::string bytes;
  bytes.append(reinterpret_cast<const char*>(kPeerMac), sizeof(kPeerMac));
  bytes.append(reinterpret_cast<const char*>(kGuestMac), sizeof(kGuestMac));
  if (frame.vlan != 0) {
    Put16(&bytes, 0x8100);
    Put16(&bytes, frame.vlan);
  }
  Put16(&bytes, 0x0800);
  std::string ip("\x45\x00", 2);
  Put16(&ip, kIpHeader + kUdpHeader + payload.size());
  ip.append(std::string("\0\0\0\0\x40\x11\0\0", 8));
  PutAddress(&ip, frame.source);
  PutAddress(&ip, frame.destination);
  const uint16_t checksum = Checksum(ip);
  ip[10] = static_cast<char>(checksum >> 8);
  ip[11] = static_cast<char>(checksum);
  bytes += ip;
  Put16(&bytes, 4000);
  Put16(&bytes, frame.port);
  Put16(&bytes, kUdpHeader + payload.size());
  Put16(&bytes, 0);
  return bytes + payload;
}

std::optional<uint64_t> NumberIn(std::string_view bytes) {
  const size_t mark = bytes.find(kMark);
  if (mark == std::string_view::npos) return std::nullopt;
  const char* const begin = bytes.data() + mark + kMark.size();
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(begin, bytes.data() + bytes.size(), number);
  if (error != std::errc() || end == bytes.data() + bytes.size() || *end != ' ') return std::nullopt;
  return number;
}

}  // namespace zem::sim::capture
