#include "platform/core/uuid.h"

#include <boost/endian/conversion.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cstring>

#include "platform/core/random.h"

namespace zem {
namespace {

constexpr size_t kTextLength = 36;

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

boost::uuids::uuid RandomUuid() {
  boost::uuids::uuid uuid;
  RandomBytes(uuid.data, sizeof(uuid.data));
  uuid.data[6] = static_cast<uint8_t>((uuid.data[6] & 0x0f) | 0x40);
  uuid.data[8] = static_cast<uint8_t>((uuid.data[8] & 0x3f) | 0x80);
  return uuid;
}

std::string RandomUuidText() { return UuidText(RandomUuid()); }

std::string UuidText(const boost::uuids::uuid& uuid) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text(kTextLength, '-');
  size_t at = 0;
  for (const uint8_t byte : uuid) {
    if (at == 8 || at == 13 || at == 18 || at == 23) ++at;
    text[at++] = kDigits[byte >> 4];
    text[at++] = kDigits[byte & 15];
  }
  return text;
}

std::optional<boost::uuids::uuid> ParseUuid(std::string_view text) {
  if (text.size() != kTextLength) return std::nullopt;
  boost::uuids::uuid uuid;
  size_t byte = 0;
  for (size_t i = 0; i < kTextLength;) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i++] != '-') return std::nullopt;
      continue;
    }
    const int high = HexDigit(text[i]);
    const int low = HexDigit(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    uuid.data[byte++] = static_cast<uint8_t>(high << 4 | low);
    i += 2;
  }
  return uuid;
}

std::optional<boost::uuids::uuid> ParseUuidDigits(std::string_view text) {
  boost::uuids::uuid uuid;
  size_t digits = 0;
  for (const char c : text) {
    if (c == ' ' || c == '-') continue;
    const int digit = HexDigit(c);
    if (digit < 0 || digits == 2 * uuid.size()) return std::nullopt;
    uint8_t& byte = uuid.data[digits / 2];
    byte = static_cast<uint8_t>(digits % 2 == 0 ? digit << 4 : byte | digit);
    ++digits;
  }
  return digits == 2 * uuid.size() ? std::optional(uuid) : std::nullopt;
}

std::pair<uint64_t, uint64_t> UuidHalves(const boost::uuids::uuid& uuid) {
  return {boost::endian::load_big_u64(uuid.data), boost::endian::load_big_u64(uuid.data + 8)};
}

boost::uuids::uuid UuidFromHalves(uint64_t first, uint64_t second) {
  boost::uuids::uuid uuid;
  boost::endian::store_big_u64(uuid.data, first);
  boost::endian::store_big_u64(uuid.data + 8, second);
  return uuid;
}

}  // namespace zem
