#pragma once

#include <cstddef>
#include <memory>

#include "platform/rpc/wire/frame.h"

namespace zem::rpc {

/// Received bytes, and the frames in them, which stay in place.
///
/// Memory follows the bytes that have come, not the length that a header claims; a buffer grown for a large
/// frame is given back when it has run empty.
class ReceiveBuffer {
 public:
  enum class Result { kFrame, kNeedMore, kBad };

  /// Room for the next read.
  char* space();
  size_t space_size() const { return capacity_ - end_; }
  void Commit(size_t size) {
    end_ += size;
    last_read_ = size;
  }

  /// The next whole frame; `payload` is valid until the next `space`.  After kBad nothing more can be read.
  Result Next(FrameHeader* header, const char** payload);

  /// What was wrong with the last frame.
  const char* error() const { return error_; }

 private:
  static constexpr size_t kUsual = 32 << 10;
  static constexpr size_t kBusy = 256 << 10;

  void MakeRoom();

  std::unique_ptr<char[]> data_;
  size_t capacity_ = 0;
  size_t begin_ = 0;
  size_t end_ = 0;
  size_t last_read_ = 0;
  size_t wanted_ = kFrameHeaderSize;  // bytes of the frame at begin_
  const char* error_ = nullptr;
};

}  // namespace zem::rpc
