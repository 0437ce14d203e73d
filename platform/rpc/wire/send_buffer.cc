#include "platform/rpc/wire/send_buffer.h"

#include <algorithm>
#include <cstring>

namespace zem::rpc {

char* SendBuffer::Extend(size_t size) {
  if (capacity_ - end_ < size) {
    const size_t held = end_ - begin_;
    const size_t capacity = std::max({capacity_ * 2, held + size, size_t{4096}});
    auto grown = std::make_unique_for_overwrite<char[]>(capacity);
    if (held > 0) std::memcpy(grown.get(), data_.get() + begin_, held);
    data_ = std::move(grown);
    capacity_ = capacity;
    begin_ = 0;
    end_ = held;
  }
  char* const out = data_.get() + end_;
  end_ += size;
  return out;
}

void SendBuffer::Clear() {
  data_.reset();
  capacity_ = begin_ = end_ = 0;
}

void SendBuffer::Consume(size_t size) {
  begin_ += size;
  if (begin_ < end_) return;
  begin_ = end_ = 0;
  if (capacity_ > kKept) {
    data_.reset();
    capacity_ = 0;
  }
}

}  // namespace zem::rpc
