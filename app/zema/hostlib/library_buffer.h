#pragma once

#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace zem::zema {

/// Owns memory that a library allocated with malloc, and frees it.
class LibraryBuffer {
 public:
  LibraryBuffer() = default;
  ~LibraryBuffer() { std::free(data_); }
  LibraryBuffer(LibraryBuffer&& other) noexcept : data_(other.data_), length_(other.length_) {
    other.data_ = nullptr;
    other.length_ = 0;
  }
  LibraryBuffer& operator=(LibraryBuffer&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(length_, other.length_);
    return *this;
  }
  LibraryBuffer(const LibraryBuffer&) = delete;
  LibraryBuffer& operator=(const LibraryBuffer&) = delete;

  /// Where the library stores the address and the length; to be filled once.
  void** data() { return &data_; }
  uint32_t* length() { return &length_; }

  std::string_view bytes() const {
    return data_ == nullptr ? std::string_view() : std::string_view(static_cast<const char*>(data_), length_);
  }
  /// The bytes up to the first zero.
  std::string_view text() const { return bytes().substr(0, bytes().find('\0')); }

 private:
  void* data_ = nullptr;
  uint32_t length_ = 0;
};

}  // namespace zem::zema
