#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "app/ctxteng/base/vm_data.h"
#include "app/ctxteng/guest/library_buffer.h"

namespace Ctxt {

/// Whether a SID is one of the system accounts that the options list.
using IsWellKnownSid = std::function<bool(const std::string& sid)>;

/// The firewall's key of a user or a group of the guest: the SID on Windows, guest and number on Linux, empty
/// on another system.
std::string DfwKey(const VmData& vm, const std::string& sid, uint32_t id);

/// The groups of a group buffer: how many it says, and those that it really has.
struct Groups {
  uint32_t count = 0;
  std::vector<std::string> sids;  // Windows
  std::vector<uint32_t> ids;      // Linux
};
Groups GroupsOf(const VmData& vm, const LibraryBuffer& buffer);

/// Milliseconds since the epoch.
uint64_t WallMilliseconds();

}  // namespace Ctxt
