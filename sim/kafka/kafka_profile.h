#pragma once

namespace zem::sim {

class CommandTable;
class KafkaService;

/// The command "profile", which shows the store's object by which a host learns of the brokers.  `service`
/// outlives the table.
void RegisterKafkaProfileCommand(CommandTable& table, KafkaService& service);

}  // namespace zem::sim
