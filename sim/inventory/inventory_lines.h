#pragma once

#include <string>
#include <vector>

#include "sim/inventory/host_inventory.h"

namespace zem::sim {

/// The inventory daemon's lines.  Each function adds a block.
using InventoryLines = std::vector<std::string>;

/// `before`: what was told last, null in a full sync.
void AddHostBlock(const char* update_type, const HostFacts* before, const HostFacts& host,
                  InventoryLines* lines);
void AddVmBlock(const VmFacts& vm, InventoryLines* lines);
/// Nothing when the two are equal.
void AddVmChange(const VmFacts& before, const VmFacts& now, InventoryLines* lines);
void AddVmLeave(const VmFacts& vm, InventoryLines* lines);

}  // namespace zem::sim
