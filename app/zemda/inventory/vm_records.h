#pragma once

#include <string>
#include <vector>

#include "app/zemda/inventory/qub_objects.h"

namespace orlane::zem::ida {
class InventoryObjectMsg;
}

namespace ZemDa {

/// The manager's records of a VM: its own first, then one of each device.
std::vector<orlane::zem::ida::InventoryObjectMsg> VmRecords(const std::string& update_type, const QubVM& vm);

/// Sets the operation of an update type; another text leaves it unset.
void SetOperation(const std::string& update_type, orlane::zem::ida::InventoryObjectMsg* object);

}  // namespace ZemDa
