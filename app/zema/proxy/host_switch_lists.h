#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zem::zema {

class LumCommands;

/// A switch that the host has.
struct HostDvs {
  std::string id;
  std::string name;
  bool operator==(const HostDvs&) const = default;
};

/// The value of the host property by which a switch tells whether it runs; nothing when it cannot be read.
using DvsStatusOf = std::function<std::optional<std::string>(const std::string& id)>;

/// The switches that are up, with `reset` also those that are down, in the host's order.  Nothing, and the
/// text for the manager in `error`, when the host does not answer or answers something else.
std::optional<std::vector<HostDvs>> GetDvsUuids(LumCommands& lum, bool reset, const DvsStatusOf& status_of,
                                                std::string* error);

/// The names of the switches, in the order of `ids`; an unknown one has an empty name.
std::optional<std::vector<std::string>> GetDvsNames(LumCommands& lum, const std::vector<std::string>& ids,
                                                    std::string* error);

/// Whether the host has switches that are there for security alone.
std::optional<bool> HasSecurityOnlySwitch(LumCommands& lum, std::string* error);

}  // namespace zem::zema
