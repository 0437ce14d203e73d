#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace zem::Tarvik {

/// A packet of a pcap stream.  The views live until the reader is given more bytes.
struct PcapRecord {
  uint32_t seconds = 0;
  uint32_t microseconds = 0;
  uint32_t captured_length = 0;
  uint32_t original_length = 0;
  /// The packet's bytes.
  std::string_view data;
  /// The record as the stream has it: its header and the bytes.
  std::string_view whole;
};

/// Takes a pcap stream apart: the file header, then whole packets.  A packet that is there only in part waits
/// for the rest; its buffer is the only thing that grows, and not beyond the largest packet and one reading.
///
/// Threads: one at a time.
class PcapReader {
 public:
  static constexpr size_t kHeaderSize = 24;
  static constexpr size_t kRecordHeaderSize = 16;
  /// No link has longer packets.
  static constexpr uint32_t kLargestPacket = 262'144;

  enum class Taken {
    kWhole,
    kAwaited,  ///< more bytes are needed
    kForeign,  ///< this is no pcap stream, or one of another kind
  };

  /// Where the next `size` bytes of the stream go; `Filled` says how many there were.
  std::span<char> Space(size_t size);
  void Filled(size_t size) { end_ += size; }

  /// The stream's first 24 bytes.
  [[nodiscard]] Taken TakeHeader();
  [[nodiscard]] Taken TakeRecord(PcapRecord* record);

  bool has_header() const { return has_header_; }
  /// As it came; zeros before.
  std::string_view header() const { return {header_.data(), header_.size()}; }

  /// The header of a file without packets from a stream that never began.
  static std::array<char, kHeaderSize> OwnHeader(uint32_t snap_length);

 private:
  size_t available() const { return end_ - begin_; }

  std::vector<char> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  bool has_header_ = false;
  std::array<char, kHeaderSize> header_{};
};

}  // namespace zem::Tarvik
