#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zem::zema {

class LumCommands;

/// A switch of the host.
struct HostDvs {
  std::string id;
  std::string name;
  bool operator==(const HostDvs&) const = default;
};

/// Reads the host property that says whether a switch is up; returns nothing when it cannot be read.
using DvsStatusOf = std::function<std::optional<std::string>(const std::string& id)>;

/// Reads the switches that are up, with `reset` also those that are down, in the host's order.  Returns
/// nothing and sets `error` to the text for the manager when the host does not answer or sends another
/// answer.
std::optional<std::vector<HostDvs>> GetDvsUuids(LumCommands& lum, bool reset, const DvsStatusOf& status_of,
                                                std::string* error);

/// Reads the names of the switches, in the order of `ids`; an unknown switch has an empty name.
std::optional<std::vector<std::string>> GetDvsNames(LumCommands& lum, const std::vector<std::string>& ids,
                                                    std::string* error);

/// Whether the host has switches that serve security alone.
std::optional<bool> HasSecurityOnlySwitch(LumCommands& lum, std::string* error);

}  // namespace zem::zema
