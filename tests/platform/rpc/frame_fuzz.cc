// The receive buffer under bytes in pieces of any size: it never reads outside of what came, and the pieces
// do not change what it finds.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/rpc/wire/receive_buffer.h"

namespace {

using zem::rpc::FrameHeader;
using zem::rpc::ReceiveBuffer;

std::vector<std::string> Frames(const uint8_t* data, size_t size, size_t piece) {
  std::vector<std::string> frames;
  ReceiveBuffer buffer;
  for (size_t at = 0; at < size;) {
    char* const space = buffer.space();
    const size_t length = std::min({piece, size - at, buffer.space_size()});
    if (length == 0) std::abort();  // a reader without room would read nothing for ever
    std::memcpy(space, data + at, length);
    buffer.Commit(length);
    at += length;
    FrameHeader header;
    const char* payload = nullptr;
    ReceiveBuffer::Result result;
    while ((result = buffer.Next(&header, &payload)) == ReceiveBuffer::Result::kFrame) {
      frames.push_back(std::to_string(static_cast<int>(header.type)) + std::string(payload, header.length));
    }
    if (result == ReceiveBuffer::Result::kBad) {
      frames.emplace_back(buffer.error());
      break;
    }
  }
  return frames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const size_t piece = 1 + data[0];
  if (Frames(data + 1, size - 1, piece) != Frames(data + 1, size - 1, size)) std::abort();
  return 0;
}
