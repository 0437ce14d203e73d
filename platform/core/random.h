#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace zem {

/// Fills `size` bytes.  Cryptographic unless a seed is set.  Throws std::runtime_error when the system's
/// generator fails.
void RandomBytes(void* out, size_t size);

uint64_t RandomNumber();

/// Makes every later random byte of the process follow from `seed`; nothing goes back to the cryptographic
/// source. For tests.
void SeedRandom(std::optional<uint64_t> seed);

}  // namespace zem
