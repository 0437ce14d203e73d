#pragma once

#include <string>
#include <vector>

namespace zem::sim {

class CommandTable;

/// The host's firewall as the node sees it: makes the device's file and the firewall's folders.  Throws
/// std::runtime_error.
void SetUpFirewall();

/// The library to load in front of the daemon's C library, which serves the device; empty where there is
/// none.
std::string FilterDeviceLibrary();

/// The commands "show", "filter", "counters", "remove", "forget", "restart", "device".
void RegisterFirewallCommands(CommandTable& table);

/// The firewall's part of the node's picture: the connections that it knows, by vNIC, and the users.
std::vector<std::string> DrawFirewall(size_t most);

}  // namespace zem::sim
