#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zem::sim {

class CommandTable;
class HostInventory;
class InventoryDaemon;
class ManagerInventory;

/// The commands of the inventory's peers.  All three outlive the table.
void RegisterInventoryCommands(CommandTable& table, HostInventory& host, InventoryDaemon& daemon,
                               ManagerInventory& manager);

/// What the manager knows, for the picture of the node.
std::vector<std::string> DrawInventory(const ManagerInventory& manager);

}  // namespace zem::sim
