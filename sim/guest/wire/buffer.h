#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zem::sim::guest {

/// A buffer of the guest event library before it is in the caller's memory: pointers are offsets into it, and
/// `pointers` tells where they are.
struct Buffer {
  std::string bytes;
  std::vector<uint32_t> pointers;

  Buffer() = default;
  /// Makes the fixed part `size` bytes long.
  explicit Buffer(size_t size) : bytes(size, '\0') {}

  template <class T>
  void Put(size_t offset, T value) {
    for (size_t i = 0; i < sizeof(T); ++i) bytes[offset + i] = static_cast<char>(value >> (8 * i));
  }
  void PutBytes(size_t offset, std::string_view data) { bytes.replace(offset, data.size(), data); }
  /// A pointer at `offset` to `data`, which is appended.
  void PutPointer(size_t offset, std::string_view data) {
    pointers.push_back(static_cast<uint32_t>(offset));
    Put<uint64_t>(offset, bytes.size());
    bytes += data;
  }
  /// A text descriptor; `wide` stores each byte as UTF-16.
  void PutText(size_t offset, std::string_view text, bool wide);
  /// An address of 4 or 16 bytes with its type; false when `ip` is not an address.
  bool PutAddress(size_t offset, const std::string& ip);

  /// Copies the bytes to `target`, whose pointers then point into `target`.
  void CopyTo(char* target) const;
};

}  // namespace zem::sim::guest
