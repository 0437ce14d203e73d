#include "app/pktcap/stream/pcap_reader.h"

#include <algorithm>
#include <cstring>

namespace zem::Tarvik {
namespace {

// Microseconds in the byte order of this host; the second one is a filter tool's own.
constexpr std::array<uint32_t, 2> kMagics = {0xa1b2c3d4, 0x1a2b3c4d};
constexpr uint16_t kMajor = 2;
constexpr uint16_t kMinor = 4;
constexpr uint32_t kEthernet = 1;

template <class Number>
Number At(const char* bytes) {
  Number number = 0;
  std::memcpy(&number, bytes, sizeof(number));
  return number;
}

template <class Number>
void Put(char* bytes, Number number) {
  std::memcpy(bytes, &number, sizeof(number));
}

}  // namespace

std::span<char> PcapReader::Space(size_t size) {
  if (begin_ == end_) begin_ = end_ = 0;
  if (buffer_.size() - end_ < size && begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, available());
    end_ -= begin_;
    begin_ = 0;
  }
  if (buffer_.size() - end_ < size) buffer_.resize(end_ + size);
  return {buffer_.data() + end_, size};
}

PcapReader::Taken PcapReader::TakeHeader() {
  if (available() < kHeaderSize) return Taken::kAwaited;
  const char* const bytes = buffer_.data() + begin_;
  if (std::find(kMagics.begin(), kMagics.end(), At<uint32_t>(bytes)) == kMagics.end()) return Taken::kForeign;
  std::memcpy(header_.data(), bytes, kHeaderSize);
  begin_ += kHeaderSize;
  has_header_ = true;
  return Taken::kWhole;
}

PcapReader::Taken PcapReader::TakeRecord(PcapRecord* record) {
  if (available() < kRecordHeaderSize) return Taken::kAwaited;
  const char* const bytes = buffer_.data() + begin_;
  const auto captured = At<uint32_t>(bytes + 8);
  if (captured > kLargestPacket) return Taken::kForeign;
  const size_t size = kRecordHeaderSize + captured;
  if (available() < size) return Taken::kAwaited;
  record->seconds = At<uint32_t>(bytes);
  record->microseconds = At<uint32_t>(bytes + 4);
  record->captured_length = captured;
  record->original_length = At<uint32_t>(bytes + 12);
  record->data = {bytes + kRecordHeaderSize, captured};
  record->whole = {bytes, size};
  begin_ += size;
  return Taken::kWhole;
}

std::array<char, PcapReader::kHeaderSize> PcapReader::OwnHeader(uint32_t snap_length) {
  std::array<char, kHeaderSize> header{};
  Put(header.data(), kMagics[0]);
  Put(header.data() + 4, kMajor);
  Put(header.data() + 6, kMinor);
  Put(header.data() + 16, snap_length);
  Put(header.data() + 20, kEthernet);
  return header;
}

}  // namespace zem::Tarvik
