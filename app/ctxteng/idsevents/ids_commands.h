#pragma once

#include <vector>

#include "framework/cli/cli_command.h"

namespace IdsEvtEng {

struct IdsCounters;
class NodeRecords;

/// The commands that show and clear the counters and the records of other producers.  Both outlive the
/// commands.
std::vector<zem::Tarvik::CliCommand> IdsStatisticsCommands(IdsCounters& counters, NodeRecords& nodes);

}  // namespace IdsEvtEng
