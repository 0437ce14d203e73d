#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "framework/process/dynamic_library.h"
#include "platform/switchlib/switchlib.h"

namespace zem::Tarvik {

/// What the health check calls of the host's switch library.
///
/// Threads: one owner; calls block as long as the library likes.
/// Errors: the library's codes; 0 is success.
class KlnLibrary {
 public:
  explicit KlnLibrary(std::string file) : library_(std::move(file)) {}
  ~KlnLibrary();
  KlnLibrary(const KlnLibrary&) = delete;
  KlnLibrary& operator=(const KlnLibrary&) = delete;

  [[nodiscard]] bool Open(std::string* error);

  /// The id of the switch with the name; nothing when there is none, or, after a log line, when the library
  /// does not tell.
  std::optional<std::string> FindSwitchId(const std::string& name) const;

  uint32_t SetGlobal(const std::string& dvs, const char* property, std::string_view value,
                     uint32_t flags) const;
  uint32_t ClearGlobal(const std::string& dvs, const char* property) const;
  uint32_t HostValue(const std::string& dvs, const char* property, std::string* value) const;
  uint32_t PortValue(const std::string& dvs, const std::string& port, const char* property,
                     std::string* value) const;

 private:
  std::vector<DynamicLibrary::Symbol> Symbols();

  DynamicLibrary library_;
  decltype(&::DVSKNL_GlobalPropClear) global_prop_clear_ = nullptr;
  decltype(&::DVSKNL_GlobalPropSet) global_prop_set_ = nullptr;
  decltype(&::DVSKNL_HostPropGet) host_prop_get_ = nullptr;
  decltype(&::DVSKNL_PortDataGet) port_data_get_ = nullptr;
  decltype(&::DVSKNL_StateGet) state_get_ = nullptr;
  decltype(&::DVSState_ConfigReset) config_reset_ = nullptr;
  decltype(&::DVSState_ConfigDeserialize) config_deserialize_ = nullptr;
  decltype(&::DVSState_SwitchFindByAlias) switch_find_by_alias_ = nullptr;
  decltype(&::DVS_SwitchId) switch_id_ = nullptr;
};

}  // namespace zem::Tarvik
