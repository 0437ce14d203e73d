// The process list's helper may say anything: the first bytes are its header, the rest is its reply.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "app/pktcap/tools/world_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zem::Tarvik;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (const auto length = ProxyBodyLength(text.substr(0, kProxyHeaderSize));
      length && *length > kLongestProxyBody) {
    std::abort();
  }
  const auto reply = ParseWorldReply(text.size() > kProxyHeaderSize ? text.substr(kProxyHeaderSize) : text);
  if (reply && reply->worlds && reply->worlds->size() > size) std::abort();
  return 0;
}
