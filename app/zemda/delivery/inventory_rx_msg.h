#pragma once

#include <cstdint>
#include <string>

namespace ZemDa {

/// A record of the manager on its way to the agent's receive thread.
struct InventoryRxMsg {
  int32_t type = 0;
  /// Empty also for a message of another type.
  std::string payload;
  std::string correlation_id;
};

}  // namespace ZemDa
