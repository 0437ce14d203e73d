#pragma once

#include <cstddef>
#include <memory>

namespace zem::rpc {

/// Bytes on their way out; messages are serialized straight into it.
class SendBuffer {
 public:
  /// `size` bytes at the end, to be filled by the caller before anything else happens to the buffer.
  char* Extend(size_t size);

  const char* data() const { return data_.get() + begin_; }
  size_t size() const { return end_ - begin_; }
  bool empty() const { return begin_ == end_; }

  /// Drops bytes from the front; memory beyond the usual is given back when nothing is left.
  void Consume(size_t size);

  /// Drops everything, the memory too.
  void Clear();

 private:
  static constexpr size_t kKept = 64 << 10;

  std::unique_ptr<char[]> data_;
  size_t capacity_ = 0;
  size_t begin_ = 0;
  size_t end_ = 0;
};

}  // namespace zem::rpc
