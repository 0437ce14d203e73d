#pragma once

namespace zem::sim {

class CommandTable;
class UploadSink;

/// Registers the commands about the manager's target for files.  `sink` outlives the table.
void RegisterUploadCommands(CommandTable& table, UploadSink& sink);

}  // namespace zem::sim
