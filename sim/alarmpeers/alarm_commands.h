#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zem::sim {

class AlarmPeers;
class Collector;
class CommandTable;

/// Registers what is asked of the collector and of the alarm clients.
void RegisterAlarmCommands(CommandTable& table, Collector& collector, AlarmPeers& peers);

/// The events that stand at the collector, in lines for a person; at most `most` of them one by one.
std::vector<std::string> DrawAlarms(const Collector& collector, size_t most);

/// In which events the collector and the clients differ; a client that does not run, or is held, has no say.
/// Waits for the clients' answers.
std::vector<std::string> AlarmDifferences(const Collector& collector, const AlarmPeers& peers);

}  // namespace zem::sim
