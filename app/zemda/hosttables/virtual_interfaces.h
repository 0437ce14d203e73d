#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace orlane::zem::ida {
class HostMsg;
}

namespace ZemDa {

/// Adds the host's virtual interfaces out of their table, with what the host's properties say of them.
void AddVirtualInterfaces(std::string_view table, const std::map<std::string, std::string>& properties,
                          const std::vector<std::string>& management, orlane::zem::ida::HostMsg* host);

}  // namespace ZemDa
