#pragma once

#include <string>

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

}  // namespace zem::sim
