#include "app/zema/hostlib/switch_health_publisher.h"

#include "app/zema/hostlib/config_ops_manager.h"
#include "app/zema/hostlib/switch_library.h"

namespace zem::zema {

bool SwitchHealthPublisher::SetProperty(const std::string& host_switch, const std::string& name,
                                        const void* data, size_t size, uint32_t flags, std::string* error) {
  const uint32_t result =
      switches_.SetHostProp(host_switch, name, {static_cast<const char*>(data), size}, flags);
  if (result != 0) *error = SwitchErrorText(result);
  return result == 0;
}

bool SwitchHealthPublisher::RemoveProperty(const std::string& host_switch, const std::string& name,
                                           std::string* error) {
  const uint32_t result = switches_.ClearHostProp(host_switch, name);
  if (result == 0 || result == kSwitchNotFound) return true;
  *error = SwitchErrorText(result);
  return false;
}

}  // namespace zem::zema
