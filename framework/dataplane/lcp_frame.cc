#include "framework/dataplane/lcp_frame.h"

#include <cstring>

namespace zem::Tarvik {
namespace {
constexpr uint8_t kFragmentBit = 0x80;
}  // namespace

LcpHeader ReadLcpHeader(const uint8_t* bytes) {
  return {static_cast<uint8_t>(bytes[0] & ~kFragmentBit), (bytes[0] & kFragmentBit) != 0, bytes[1],
          static_cast<uint32_t>(bytes[2]) << 24 | static_cast<uint32_t>(bytes[3]) << 16 |
              static_cast<uint32_t>(bytes[4]) << 8 | static_cast<uint32_t>(bytes[5])};
}

void WriteLcpHeader(uint8_t type, uint32_t length, uint8_t* bytes) {
  bytes[0] = 0;
  bytes[1] = type;
  bytes[2] = static_cast<uint8_t>(length >> 24);
  bytes[3] = static_cast<uint8_t>(length >> 16);
  bytes[4] = static_cast<uint8_t>(length >> 8);
  bytes[5] = static_cast<uint8_t>(length);
}

std::span<uint8_t> LcpFrameReader::Space() {
  if (frame_ != nullptr && filled_ == header_.length) Reset();
  if (frame_ == nullptr) return std::span(head_).subspan(filled_);
  return {frame_.get() + filled_, header_.length - filled_};
}

LcpFrameReader::Event LcpFrameReader::Advance(size_t count) {
  filled_ += count;
  if (frame_ != nullptr) return filled_ == header_.length ? Event::kFrame : Event::kMore;
  if (filled_ < kLcpHeaderSize) return Event::kMore;
  header_ = ReadLcpHeader(head_.data());
  if (header_.length < kLcpHeaderSize || header_.length > kMaxLcpFrame) return Event::kBadLength;
  if (header_.reserved != 0) return Event::kBadReserved;
  frame_.reset(static_cast<uint8_t*>(std::malloc(header_.length)));
  if (frame_ == nullptr) return Event::kNoMemory;
  std::memcpy(frame_.get(), head_.data(), kLcpHeaderSize);
  return Event::kHeader;
}

void LcpFrameReader::Reset() {
  frame_.reset();
  filled_ = 0;
}

}  // namespace zem::Tarvik
