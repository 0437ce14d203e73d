#include "platform/rpc/wire/receive_buffer.h"

#include <algorithm>
#include <cstring>

namespace zem::rpc {

char* ReceiveBuffer::space() {
  MakeRoom();
  return data_.get() + end_;
}

void ReceiveBuffer::MakeRoom() {
  const size_t held = end_ - begin_;
  size_t capacity = capacity_;
  if (capacity == 0 || (held == 0 && capacity > kUsual && last_read_ < capacity / 8)) {
    capacity = kUsual;
  } else if (held == 0 && capacity > kBusy) {
    capacity = kBusy;
  } else if (end_ == capacity && last_read_ > capacity / 2 && capacity < kBusy) {
    capacity *= 2;
  } else if (wanted_ > capacity && held > capacity / 2) {
    capacity = std::min(capacity * 2, std::max(wanted_, kUsual));
  }
  if (capacity != capacity_) {
    auto grown = std::make_unique_for_overwrite<char[]>(capacity);
    if (held > 0) std::memcpy(grown.get(), data_.get() + begin_, held);
    data_ = std::move(grown);
    capacity_ = capacity;
  } else if (begin_ > 0 &&
             (held == 0 || capacity_ - begin_ < wanted_ || capacity_ - end_ < kFrameHeaderSize)) {
    if (held > 0) std::memmove(data_.get(), data_.get() + begin_, held);
  } else {
    return;
  }
  begin_ = 0;
  end_ = held;
}

ReceiveBuffer::Result ReceiveBuffer::Next(FrameHeader* header, const char** payload) {
  if (error_ != nullptr) return Result::kBad;
  const size_t held = end_ - begin_;
  if (held < kFrameHeaderSize) {
    wanted_ = kFrameHeaderSize;
    return Result::kNeedMore;
  }
  error_ = DecodeFrameHeader(data_.get() + begin_, header);
  if (error_ != nullptr) return Result::kBad;
  wanted_ = kFrameHeaderSize + header->length;
  if (held < wanted_) return Result::kNeedMore;
  *payload = data_.get() + begin_ + kFrameHeaderSize;
  begin_ += wanted_;
  wanted_ = kFrameHeaderSize;
  return Result::kFrame;
}

}  // namespace zem::rpc
