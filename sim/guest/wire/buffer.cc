#include "sim/guest/wire/buffer.h"

#include <arpa/inet.h>

#include <cstring>

namespace zem::sim::guest {

void Buffer::PutText(size_t offset, std::string_view text, bool wide) {
  std::string stored;
  if (wide) {
    for (const char c : text) stored.append({c, '\0'});
  } else {
    stored = text;
  }
  Put<uint32_t>(offset, static_cast<uint32_t>(stored.size()));
  PutPointer(offset + 4, stored);
}

bool Buffer::PutAddress(size_t offset, const std::string& ip) {
  char address[16];
  if (::inet_pton(AF_INET, ip.c_str(), address) == 1) {
    Put<uint32_t>(offset, 0);
    PutBytes(offset + 4, {address, 4});
    return true;
  }
  if (::inet_pton(AF_INET6, ip.c_str(), address) != 1) return false;
  Put<uint32_t>(offset, 1);
  PutBytes(offset + 4, {address, 16});
  return true;
}

void Buffer::CopyTo(char* target) const {
  std::memcpy(target, bytes.data(), bytes.size());
  for (const uint32_t at : pointers) {
    uint64_t offset = 0;
    std::memcpy(&offset, target + at, sizeof(offset));
    const uint64_t pointer = reinterpret_cast<uint64_t>(target) + offset;
    std::memcpy(target + at, &pointer, sizeof(pointer));
  }
}

}  // namespace zem::sim::guest
