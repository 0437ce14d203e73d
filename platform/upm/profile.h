#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zem::upm {

enum EntityType : uint32_t { ENTITY_TRANSPORT_NODE = 2, ENTITY_VM = 3 };

enum ProfileType : uint32_t {
  GI_SERVICE = 5,
  CONTEXT_HOST_CONFIG = 8,
  COMMON_AGENT_HOST_CONFIG = 15,
  METRICS_MUX_ON_UA_PROFILE = 17,
};

/// One profile of an entity; its payload is a message of the type's own.
struct Profile {
  std::optional<uint32_t> type;
  std::string tag;
  std::string payload;

  bool operator==(const Profile&) const = default;
};

/// What became of the profiles of one entity, of the types that were asked for.
struct ProfileUpdate {
  uint32_t entity_type = 0;
  std::string entity_id;
  /// Empty when the entity has no such profile any more.
  std::vector<Profile> new_profiles;
  std::vector<Profile> old_profiles;
};

/// `full_sync`: the list is complete.
using ProfileCallback = std::function<void(const std::vector<ProfileUpdate>& updates, bool full_sync)>;

}  // namespace zem::upm
