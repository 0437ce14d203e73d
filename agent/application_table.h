#pragma once

#include <span>

#include "agent/application.h"

namespace zem::Tarvik {

/// The applications of the agent, in the order in which they start.
std::span<const ApplicationRow> ApplicationTable();

}  // namespace zem::Tarvik
