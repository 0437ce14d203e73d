#pragma once

#include <string_view>
#include <vector>

#include "sim/guest/wire/buffer.h"
#include "sim/guest/world/guest.h"

namespace zem::sim::guest {

/// The buffers of the guest event library, filled from a guest's state.
Buffer VmIdBuffer(const Guest& guest);
Buffer LogonSessionsBuffer(const Guest& guest);
Buffer NetworkEventBuffer(const Guest& guest, const Happening& happening);
Buffer ProcessInfoBuffer(const Guest& guest, const Process& process);
Buffer HashBuffer(const Process& process);
Buffer GroupsBuffer(const Guest& guest, const std::vector<std::string>& groups);
Buffer SystemEventBuffer(const Guest& guest, const Happening& happening);
Buffer UserBuffer(const Guest& guest, const User& user);
Buffer OsBuffer(const Guest& guest);
Buffer ExtendedOsBuffer(const Guest& guest);
Buffer IntrospectionBuffer(const Guest& guest);
Buffer TextBuffer(std::string_view text);

}  // namespace zem::sim::guest
