#pragma once

#include "framework/cli/cli_command.h"

namespace Ctxt {

/// "set/alarm": the threshold of an event of intrusion detection.
zem::Tarvik::CliCommand SetAlarmCommand();

}  // namespace Ctxt
