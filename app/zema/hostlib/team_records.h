#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/zema/hostlib/switch_teaming.h"

/// The switch library's binary records of teamings and link aggregation groups.
namespace zem::zema {

/// Both return nothing when a name is too long for the record.
std::optional<std::string> BuildTeamPolicy(const SwitchTeaming& teaming);
std::optional<std::string> BuildTeamTable(uint32_t kind, const std::vector<SwitchTeaming>& teamings);

/// Both return nothing when the record does not have the length that it states, or contains an unterminated
/// name.
std::optional<SwitchTeaming> ReadTeamPolicy(std::string_view record);
std::optional<std::vector<std::string>> ReadLacpNames(std::string_view record);

}  // namespace zem::zema
