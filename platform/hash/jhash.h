#pragma once

#include <cstdint>
#include <string_view>

namespace zem {

/// The 32-bit Jenkins hash (lookup3) of `bytes`.  The same on every machine.
uint32_t jhash32(std::string_view bytes, uint32_t seed = 0);

/// The 64-bit Jenkins hash (lookup3, both words): the first word is the low half.  A hash of several pieces
/// passes the result of one piece as the seed of the next.
uint64_t jhash64(std::string_view bytes, uint64_t seed = 0);

}  // namespace zem
