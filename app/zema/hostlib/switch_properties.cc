#include "app/zema/hostlib/switch_properties.h"

#include "app/zema/hostlib/library_step.h"
#include "app/zema/hostlib/switch_library.h"

namespace zem::zema {
namespace {

uint32_t Length(std::string_view value) { return static_cast<uint32_t>(value.size()); }

}  // namespace

uint32_t SwitchProperties::HostPropSet(const std::string& dvs, const char* property, std::string_view value,
                                       uint32_t flags) const {
  if (!library_.loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_HostPropSet", dvs, {}, property)(
      library_.calls().host_prop_set(dvs.c_str(), property, value.data(), Length(value), flags));
}

uint32_t SwitchProperties::HostPropGet(const std::string& dvs, const char* property,
                                       LibraryBuffer* value) const {
  if (!library_.loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_HostPropGet", dvs, {}, property)(
      library_.calls().host_prop_get(dvs.c_str(), property, value->data(), value->length()));
}

uint32_t SwitchProperties::HostPropClear(const std::string& dvs, const char* property) const {
  if (!library_.loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_HostPropClear", dvs, {},
                     property)(library_.calls().host_prop_clear(dvs.c_str(), property));
}

uint32_t SwitchProperties::GlobalPropSet(const std::string& dvs, const char* property, std::string_view value,
                                         uint32_t flags) const {
  if (!library_.loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_GlobalPropSet", dvs, {}, property)(
      library_.calls().global_prop_set(dvs.c_str(), property, value.data(), Length(value), flags));
}

uint32_t SwitchProperties::GlobalPropGet(const std::string& dvs, const char* property,
                                         LibraryBuffer* value) const {
  if (!library_.loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_GlobalPropGet", dvs, {}, property)(
      library_.calls().global_prop_get(dvs.c_str(), property, value->data(), value->length()));
}

uint32_t SwitchProperties::GlobalPropClear(const std::string& dvs, const char* property) const {
  if (!library_.loaded()) return kSwitchNotLoaded;
  return LibraryStep("DVSKNL_GlobalPropClear", dvs, {},
                     property)(library_.calls().global_prop_clear(dvs.c_str(), property));
}

}  // namespace zem::zema
