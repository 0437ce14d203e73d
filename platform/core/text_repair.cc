#include "platform/core/text_repair.h"

#include <cstddef>
#include <cstdint>

namespace zem {
namespace {

// The length of the character that begins at `at`, 0 when there is none.
size_t CharacterAt(const std::string& text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t first = byte(at);
  if (first < 0x80) return 1;
  const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || at + length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) return 0;
  }
  const uint8_t second = byte(at + 1);
  // Longer than need be, a surrogate, or beyond the last character.
  if ((first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
      (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F)) {
    return 0;
  }
  return length;
}

}  // namespace

std::string RepairText(std::string text) {
  for (size_t at = 0; at < text.size();) {
    const size_t length = CharacterAt(text, at);
    if (length == 0) text[at] = '?';
    at += length == 0 ? 1 : length;
  }
  return text;
}

}  // namespace zem
