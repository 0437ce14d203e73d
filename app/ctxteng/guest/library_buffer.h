#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Ctxt {

/// The text behind the bytes of a library text: every second byte when it is UTF-16, up to the first zero.
std::string Narrow(std::string_view bytes);

/// The text of an address record, at most `length` bytes with the zero behind it.  `record` is a u32 type (0
/// IPv4, 1 IPv6) and `available` bytes after it.  An address that is cut off gives an empty text.
void IpToString(char* buffer, size_t length, const char* record, size_t available);

/// A buffer that the guest event library has filled.  The library's word is not trusted: a read outside the
/// buffer, or a pointer to somewhere else, gives nothing.
///
/// Pointers in the bytes point into the buffer, so it can be moved, but not copied.
class LibraryBuffer {
 public:
  LibraryBuffer() = default;

  /// `size` zero bytes; false, and an empty buffer, when there is no memory.
  [[nodiscard]] bool Allocate(size_t size);
  void Clear() { bytes_.reset(), size_ = 0; }

  explicit operator bool() const { return bytes_ != nullptr; }
  char* data() { return bytes_.get(); }
  const char* data() const { return bytes_.get(); }
  size_t size() const { return size_; }

  /// The number at `offset`, 0 when it lies outside.
  template <class T>
  T Number(size_t offset) const {
    T value{};
    if (offset <= size_ && sizeof(T) <= size_ - offset) std::memcpy(&value, bytes_.get() + offset, sizeof(T));
    return value;
  }
  bool Has(size_t offset, size_t size) const { return offset <= size_ && size <= size_ - offset; }
  /// `size` bytes from `offset` on, fewer at the end of the buffer.
  std::string_view Bytes(size_t offset, size_t size) const;
  /// The bytes that the pointer at `offset` points to, `size` or as many as the buffer has.
  std::string_view BytesBehind(size_t offset, size_t size) const;
  /// The bytes behind the text descriptor at `offset`.
  std::string_view RawTextAt(size_t offset) const {
    return BytesBehind(offset + 4, Number<uint32_t>(offset));
  }
  std::string TextAt(size_t offset) const { return Narrow(RawTextAt(offset)); }
  /// The address at `offset` as text.
  std::string IpAt(size_t offset) const;

 private:
  std::unique_ptr<char[]> bytes_;
  size_t size_ = 0;
};

}  // namespace Ctxt
