#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/zema/hostlib/switch_properties.h"
#include "app/zema/hostlib/switch_teaming.h"
#include "framework/tasks/outcome.h"

namespace zem::zema {

class SwitchLibrary;

/// Properties of whole switches.
///
/// Threads: all operations from any thread.
/// Ownership: holds the library by reference.
/// Errors: the library's code, or an outcome with the reason; all fail while the library is not loaded.
class ConfigOpsManager {
 public:
  /// Which table of named teamings.
  static constexpr uint32_t kLogicalSwitchTeamings = 2;

  explicit ConfigOpsManager(SwitchLibrary& library) : library_(library), properties_(library) {}

  Outcome ConfigureTeaming(const std::string& dvs, const SwitchTeaming& teaming);
  /// An empty list clears them.
  Outcome ConfigureNamedTeaming(const std::string& dvs, const std::vector<SwitchTeaming>& teamings);
  /// Done also when there was no teaming to clear.
  Outcome ClearTeaming(const std::string& dvs);
  Outcome ClearNamedTeaming(const std::string& dvs);
  /// Reads the policy number and the uplinks, active ones first, then standby ones.  A switch without teaming
  /// gives 0 and no uplinks.
  Outcome GetTeaming(const std::string& dvs, uint32_t* team_type, std::vector<std::string>* uplinks);
  /// Reads the names of the link aggregation groups.  A switch without groups is no failure.
  Outcome GetLacpNames(const std::string& dvs, std::vector<std::string>* names);

  /// Sets a text property of the switch on this host.
  uint32_t SetHostProp(const std::string& dvs, const std::string& property, const std::string& value);
  uint32_t SetHostProp(const std::string& dvs, const std::string& property, std::string_view bytes,
                       uint32_t flags);
  /// Returns kSwitchNotFound, without a log line, when there is no such property.
  uint32_t ClearHostProp(const std::string& dvs, const std::string& property);
  /// Returns nothing when the property is absent or cannot be read.
  std::optional<std::string> GetHostProp(const std::string& dvs, const std::string& property);

 private:
  Outcome Usable() const;
  Outcome SetGlobal(const std::string& dvs, const char* property, std::string_view value);
  Outcome ClearGlobal(const std::string& dvs, const char* property);

  SwitchLibrary& library_;
  const SwitchProperties properties_;
};

}  // namespace zem::zema
