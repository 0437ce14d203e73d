#include "app/pktcap/stream/capture_headers.h"

#include <arpa/inet.h>

#include <cstring>

namespace zem::Tarvik {
namespace {

constexpr char kKeyPresent = 0x20;
constexpr uint16_t kEthernetBridging = 0x6558;
constexpr uint32_t kDirectionBit = uint32_t{1} << 25;
constexpr uint32_t kHasVni = uint32_t{1} << 24;
constexpr uint32_t kMostVni = kHasVni - 1;
constexpr char kCaptureKind = 7;
// What follows the length of a captured packet.
constexpr uint32_t kWordsBehindLength = 20;

void PutWord(char* bytes, uint32_t number) {
  const uint32_t big = htonl(number);
  std::memcpy(bytes, &big, sizeof(big));
}

}  // namespace

std::array<char, kGreHeaderSize> GreHeader(bool incoming, uint32_t vni) {
  std::array<char, kGreHeaderSize> header{};
  header[0] = kKeyPresent;
  const uint16_t protocol = htons(kEthernetBridging);
  std::memcpy(&header[2], &protocol, sizeof(protocol));
  uint32_t key = incoming ? kDirectionBit : 0;
  if (vni >= 1 && vni <= kMostVni) key |= kHasVni | vni;
  PutWord(&header[4], key);
  return header;
}

std::array<char, kCaptureHeaderSize> CaptureHeader(const PcapRecord& record, uint32_t serial) {
  std::array<char, kCaptureHeaderSize> header{};
  header[1] = kCaptureKind;
  const uint32_t words[] = {record.captured_length + kWordsBehindLength,
                            record.seconds,
                            record.microseconds,
                            record.captured_length,
                            record.original_length,
                            serial};
  char* at = &header[4];
  for (const uint32_t word : words) {
    PutWord(at, word);
    at += sizeof(word);
  }
  return header;
}

}  // namespace zem::Tarvik
