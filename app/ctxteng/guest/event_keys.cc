#include "app/ctxteng/guest/event_keys.h"

#include <chrono>

#include "platform/core/clock.h"

namespace Ctxt {

std::string DfwKey(const VmData& vm, const std::string& sid, uint32_t id) {
  if (vm.os.os_type == kWindows) return sid;
  if (vm.os.os_type != kLinux) return {};
  return "L-" + vm.vc_uuid + ":" + std::to_string(id);
}

Groups GroupsOf(const VmData& vm, const LibraryBuffer& buffer) {
  Groups groups;
  const uint32_t said = buffer.Number<uint16_t>(0);
  const size_t item = vm.os.os_type == kWindows ? 12 : 4;
  size_t at = 2;
  // Texts that lie in the buffer side by side cannot be longer than it; descriptors that all point to the
  // same long text would make more of it than there is memory.
  size_t text_left = buffer.size();
  for (; groups.count < said && buffer.Has(at, item); ++groups.count, at += item) {
    if (vm.os.os_type == kWindows) {
      std::string sid = buffer.TextAt(at);
      if (sid.size() > text_left) break;
      text_left -= sid.size();
      groups.sids.push_back(std::move(sid));
    } else {
      groups.ids.push_back(buffer.Number<uint32_t>(at));
    }
  }
  return groups;
}

uint64_t WallMilliseconds() {
  const auto since = zem::Clock::Process().WallNow().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
}

}  // namespace Ctxt
