#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/upm/profile.h"

namespace orlane::zem::covedb {
class MonitorUpdateMsg;
}

namespace zem::upm {

/// The profiles and the entities that have them, as the store has them.  Not thread-safe.
class ProfileTables {
 public:
  /// Takes one change of the store.  False, and nothing changes, when the object cannot be read.
  [[nodiscard]] bool Apply(const orlane::zem::covedb::MonitorUpdateMsg& update);
  /// True when `update` sets an object that is known and does not say what it was before: the store sends all
  /// that it has again.
  bool IsRepetition(const orlane::zem::covedb::MonitorUpdateMsg& update) const;

  using Effective = std::map<std::string, std::vector<Profile>>;
  /// The profiles of `types`, by entity of `entity_type`, in the order in which each entity lists them.
  /// Entities without any are left out.
  Effective Of(uint32_t entity_type, const std::vector<uint32_t>& types) const;

 private:
  struct Binding {
    uint32_t entity_type = 0;
    std::vector<std::string> profiles;
  };
  std::map<std::string, Profile> profiles_;
  std::map<std::string, Binding> bindings_;
};

}  // namespace zem::upm
