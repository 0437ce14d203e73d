#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "app/zema/proxy/host_switch_lists.h"
#include "framework/tasks/outcome.h"

namespace zem::zema {

/// How a switch spreads traffic over its uplinks; its router port is connected with these values.
struct DvsConfigInfo {
  std::string id;
  uint32_t team_type = 0;
  std::vector<std::string> uplinks;
  bool operator==(const DvsConfigInfo&) const = default;
};

/// Reads a switch's teaming and the names of its link aggregation groups.
using TeamingReader =
    std::function<Outcome(const std::string& dvs, uint32_t* team_type, std::vector<std::string>* uplinks)>;
using LacpNamesReader = std::function<Outcome(const std::string& dvs, std::vector<std::string>* names)>;

/// Collects the record of each switch, in the order of `switches`.  A switch that cannot be read is left out
/// and its reason added to `error`; the result is then false.
[[nodiscard]] bool GetDvsConfigInfo(const std::vector<HostDvs>& switches, const TeamingReader& get_teaming,
                                    const LacpNamesReader& get_lacp_names, std::vector<DvsConfigInfo>* infos,
                                    std::string* error);

}  // namespace zem::zema
