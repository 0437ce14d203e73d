#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/zema/hostlib/switch_properties.h"
#include "app/zema/hostlib/switch_teaming.h"

namespace zem::zema {

class SwitchLibrary;

/// Properties of whole switches.
///
/// Threads: all operations from any thread.
/// Ownership: holds the library by reference.
/// Errors: the library's code, or false with the reason in `error`; all fail while the library is not loaded.
class ConfigOpsManager {
 public:
  /// Which table of named teamings.
  static constexpr uint32_t kLogicalSwitchTeamings = 2;

  explicit ConfigOpsManager(SwitchLibrary& library) : library_(library), properties_(library) {}

  [[nodiscard]] bool ConfigureTeaming(const std::string& dvs, const SwitchTeaming& teaming,
                                      std::string* error);
  /// An empty list clears them.
  [[nodiscard]] bool ConfigureNamedTeaming(const std::string& dvs, const std::vector<SwitchTeaming>& teamings,
                                           std::string* error);
  /// Returns true also when there was no teaming to clear.
  [[nodiscard]] bool ClearTeaming(const std::string& dvs, std::string* error);
  [[nodiscard]] bool ClearNamedTeaming(const std::string& dvs, std::string* error);
  /// Reads the policy number and the uplinks, active ones first, then standby ones.  A switch without teaming
  /// gives 0 and no uplinks.
  [[nodiscard]] bool GetTeaming(const std::string& dvs, uint32_t* team_type,
                                std::vector<std::string>* uplinks, std::string* error);
  /// Reads the names of the link aggregation groups.  A switch without groups is no failure.
  [[nodiscard]] bool GetLacpNames(const std::string& dvs, std::vector<std::string>* names,
                                  std::string* error);

  /// Sets a text property of the switch on this host.
  uint32_t SetHostProp(const std::string& dvs, const std::string& property, const std::string& value);
  uint32_t SetHostProp(const std::string& dvs, const std::string& property, std::string_view bytes,
                       uint32_t flags);
  /// Returns kSwitchNotFound, without a log line, when there is no such property.
  uint32_t ClearHostProp(const std::string& dvs, const std::string& property);
  /// Returns nothing when the property is absent or cannot be read.
  std::optional<std::string> GetHostProp(const std::string& dvs, const std::string& property);

 private:
  bool Usable(std::string* error) const;
  bool SetGlobal(const std::string& dvs, const char* property, std::string_view value, std::string* error);
  bool ClearGlobal(const std::string& dvs, const char* property, std::string* error);

  SwitchLibrary& library_;
  const SwitchProperties properties_;
};

}  // namespace zem::zema
