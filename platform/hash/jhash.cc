#include "platform/hash/jhash.h"

#include <bit>
#include <cstddef>

namespace zem {
namespace {

struct Words {
  uint32_t a;
  uint32_t b;
  uint32_t c;
};

void Mix(Words& w) {
  w.a -= w.c, w.a ^= std::rotl(w.c, 4), w.c += w.b;
  w.b -= w.a, w.b ^= std::rotl(w.a, 6), w.a += w.c;
  w.c -= w.b, w.c ^= std::rotl(w.b, 8), w.b += w.a;
  w.a -= w.c, w.a ^= std::rotl(w.c, 16), w.c += w.b;
  w.b -= w.a, w.b ^= std::rotl(w.a, 19), w.a += w.c;
  w.c -= w.b, w.c ^= std::rotl(w.b, 4), w.b += w.a;
}

void Final(Words& w) {
  w.c ^= w.b, w.c -= std::rotl(w.b, 14);
  w.a ^= w.c, w.a -= std::rotl(w.c, 11);
  w.b ^= w.a, w.b -= std::rotl(w.a, 25);
  w.c ^= w.b, w.c -= std::rotl(w.b, 16);
  w.a ^= w.c, w.a -= std::rotl(w.c, 4);
  w.b ^= w.a, w.b -= std::rotl(w.a, 14);
  w.c ^= w.b, w.c -= std::rotl(w.b, 24);
}

// Up to four bytes of `bytes` from `offset`, little-endian; bytes past the end count as zero.
uint32_t WordAt(std::string_view bytes, size_t offset) {
  uint32_t word = 0;
  for (size_t i = 0; i < 4 && offset + i < bytes.size(); ++i) {
    word |= static_cast<uint32_t>(static_cast<uint8_t>(bytes[offset + i])) << (8 * i);
  }
  return word;
}

void Add(Words& w, std::string_view bytes, size_t offset) {
  w.a += WordAt(bytes, offset);
  w.b += WordAt(bytes, offset + 4);
  w.c += WordAt(bytes, offset + 8);
}

Words Hash(std::string_view bytes, uint32_t first_seed, uint32_t second_seed) {
  const uint32_t start = 0xdeadbeef + static_cast<uint32_t>(bytes.size()) + first_seed;
  Words w{start, start, start + second_seed};
  if (bytes.empty()) return w;
  size_t offset = 0;
  for (; bytes.size() - offset > 12; offset += 12) {
    Add(w, bytes, offset);
    Mix(w);
  }
  Add(w, bytes, offset);
  Final(w);
  return w;
}

}  // namespace

uint32_t jhash32(std::string_view bytes, uint32_t seed) { return Hash(bytes, seed, 0).c; }

uint64_t jhash64(std::string_view bytes, uint64_t seed) {
  const Words w = Hash(bytes, static_cast<uint32_t>(seed), static_cast<uint32_t>(seed >> 32));
  return w.c | static_cast<uint64_t>(w.b) << 32;
}

}  // namespace zem
