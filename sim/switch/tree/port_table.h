#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sim/switch/tree/value_list.h"

/// The ports in the tree.  The caller of a function that changes ports holds the tree's lock.  Codes are
/// those of the library.
namespace zem::sim::ports {

uint32_t Add(const std::string& dvs, const std::string& port, const ValueList& properties);
uint32_t Remove(const std::string& dvs, const std::string& port);
bool Has(const std::string& dvs, const std::string& port);
/// All properties, or only the persistent ones.  Nothing when there is no such port.
std::optional<ValueList> State(const std::string& dvs, const std::string& port, bool persistent);
/// Removes all ports of the switch, as a restart of the host does.
void RemoveAll(const std::string& dvs);

std::string PropertyPath(const std::string& dvs, const std::string& port, std::string_view property);

}  // namespace zem::sim::ports
