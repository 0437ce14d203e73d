// Any URL of an alert, and any file name in the captures' folder.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "app/ctxteng/idsqueue/capture_files.h"
#include "app/ctxteng/idsrecord/event_time.h"
#include "app/ctxteng/idsrecord/url_parts.h"
#include "tests/support/silent_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace IdsEvtEng;
  zem::test::SilenceLog();
  const std::string text(reinterpret_cast<const char*>(data), size);
  const UrlParts parts = SplitUrl(text);
  if (parts.path.empty() || parts.path[0] != '/' || parts.host.find('/') != std::string::npos) std::abort();
  if (parts.scheme.size() + parts.host.size() + parts.port.size() + parts.path.size() > size + 1)
    std::abort();
  EpochSeconds(text);
  if (const auto key = ParseCaptureName(text)) {
    const std::string usual = std::to_string(key->flow_id) + "." + std::to_string(key->snip_ts_us) + ".pcap";
    if (ParseCaptureName(usual) != key) std::abort();
  }
  return 0;
}
