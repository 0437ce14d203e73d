#pragma once

#include <map>
#include <string>
#include <string_view>

namespace orlane::zem::ida {
class HostMsg;
}

namespace ZemDa {

/// Adds the host's physical interfaces out of their table, with what the host's properties say of them.
void AddPhysicalInterfaces(std::string_view table, const std::map<std::string, std::string>& properties,
                           orlane::zem::ida::HostMsg* host);

/// Sets the fast path flags of the interfaces out of their table.  `command` is for log lines.
void AddFastPathFlags(std::string_view table, const std::string& command, orlane::zem::ida::HostMsg* host);

/// Whether the table of fast path features is one: older hosts answer otherwise.
bool IsFastPathTable(std::string_view table);

}  // namespace ZemDa
