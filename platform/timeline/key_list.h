#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zem::timeline {

/// The keys by which an operation is found.  The first ones are kept in place, since each piece of memory of
/// its own would cost an operation more to give back than its steps.
///
/// Limits: 128 keys; a key is cut at 128 bytes.
class KeyList {
 public:
  /// The key as it was added; empty when it is empty, there already or one too many.
  std::string_view Add(std::string_view key);
  bool Has(std::string_view key) const;

  /// Calls `take` with each key, in the order of adding, until it returns false.
  template <class Take>
  void ForEach(Take take) const {
    if (ForEachIn({first_.data(), used_}, take)) ForEachIn(more_, take);
  }

 private:
  // Each key has its length in front.
  template <class Take>
  static bool ForEachIn(std::string_view keys, Take& take) {
    for (size_t at = 0; at < keys.size();) {
      const size_t length = static_cast<unsigned char>(keys[at]);
      if (!take(keys.substr(at + 1, length))) return false;
      at += 1 + length;
    }
    return true;
  }

  std::array<char, 224> first_;
  uint16_t used_ = 0;
  uint16_t count_ = 0;
  std::string more_;
};

}  // namespace zem::timeline
