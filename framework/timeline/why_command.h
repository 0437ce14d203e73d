#pragma once

#include "framework/cli/cli_command.h"

namespace zem::Tarvik {

class TimelineFile;

/// "get/why ID": the timelines of the operations that an id or a name belongs to, newest first, ten at most;
/// "#N" is the operation of that number; without an id a list of all operations that are known, without their
/// steps.  `file` outlives the command.
CliCommand WhyCommand(const TimelineFile& file);

}  // namespace zem::Tarvik
