#include "platform/core/random.h"

#include <openssl/rand.h>

#include <cstring>
#include <mutex>
#include <random>
#include <stdexcept>

namespace zem {
namespace {

struct Seeded {
  std::mutex mutex;
  std::optional<std::mt19937_64> engine;
};

Seeded& State() {
  static Seeded state;
  return state;
}

}  // namespace

void RandomBytes(void* out, size_t size) {
  Seeded& state = State();
  std::lock_guard lock(state.mutex);
  auto* bytes = static_cast<unsigned char*>(out);
  if (state.engine) {
    while (size > 0) {
      const uint64_t word = (*state.engine)();
      const size_t part = std::min(size, sizeof(word));
      std::memcpy(bytes, &word, part);
      bytes += part;
      size -= part;
    }
    return;
  }
  if (RAND_bytes(bytes, static_cast<int>(size)) != 1) throw std::runtime_error("RAND_bytes failed");
}

uint64_t RandomNumber() {
  uint64_t number = 0;
  RandomBytes(&number, sizeof(number));
  return number;
}

void SeedRandom(std::optional<uint64_t> seed) {
  Seeded& state = State();
  std::lock_guard lock(state.mutex);
  if (seed) {
    state.engine.emplace(*seed);
  } else {
    state.engine.reset();
  }
}

}  // namespace zem
