#pragma once

#include "framework/cli/cli_command.h"

namespace Ctxt {

class Ids;

/// "get/idsStatus": whether intrusion detection is on, and whether its alerts go to Kafka.  `ids` outlives
/// the command.
zem::Tarvik::CliCommand IdsStatusCommand(Ids& ids);

}  // namespace Ctxt
