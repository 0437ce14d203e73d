#pragma once

#include <memory>

#include "mpaclient/mpa_client.h"

namespace zem {

/// Makes the client of a vertical by its name: with the RPC road when the table has the vertical and its port
/// is not that of the bus, else the plain client.
std::shared_ptr<MpaClient> MakeMpaClient(MpaClientArguments arguments);

}  // namespace zem
