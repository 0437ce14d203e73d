#pragma once

namespace zem::sim {

class CommandTable;
class ServiceManager;

/// Registers the service manager's commands; both outlive the table's use.
void RegisterServiceCommands(CommandTable& table, ServiceManager& service);

}  // namespace zem::sim
