#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

namespace zem::Tarvik {

/// The frames of the dataplane link: byte 0 holds the fragment bit and reserved bits, byte 1 the type, bytes
/// 2 to 5 the length of the whole frame, big-endian; the body follows.
inline constexpr size_t kLcpHeaderSize = 6;
inline constexpr size_t kMaxLcpFrame = 16 * 1024 * 1024;

struct LcpHeader {
  uint8_t reserved;
  bool fragment;
  uint8_t type;
  uint32_t length;
};

LcpHeader ReadLcpHeader(const uint8_t* bytes);
void WriteLcpHeader(uint8_t type, uint32_t length, uint8_t* bytes);

struct FreeDeleter {
  void operator()(void* block) const { std::free(block); }
};
/// A frame from malloc.
using LcpFrame = std::unique_ptr<uint8_t[], FreeDeleter>;

/// Cuts a stream into frames: says where the next bytes go, and counts how many came.  The body is read
/// into its frame at once; a frame is allocated only when its header is sound.
class LcpFrameReader {
 public:
  enum class Event {
    kMore,         ///< read on
    kHeader,       ///< a sound header is there; see `header()`
    kFrame,        ///< a whole frame is there; see `frame()`; it is forgotten at the next Space()
    kBadLength,    ///< the stream is lost until Reset
    kBadReserved,  ///< the same
    kNoMemory,     ///< the same
  };

  /// Where the next bytes of the stream belong; never empty.
  std::span<uint8_t> Space();

  /// `count` bytes were put into the space.  After kHeader it is called once more with 0.
  Event Advance(size_t count);

  const LcpHeader& header() const { return header_; }
  std::span<const uint8_t> frame() const { return {frame_.get(), header_.length}; }
  /// True between a sound header and the frame's end.
  bool in_body() const { return frame_ != nullptr; }

  /// Begins a new stream.
  void Reset();

 private:
  std::array<uint8_t, kLcpHeaderSize> head_{};
  LcpHeader header_{};
  LcpFrame frame_;
  size_t filled_ = 0;
};

}  // namespace zem::Tarvik
