#include "app/zema/hostlib/switch_health_publisher.h"

#include "app/zema/hostlib/config_ops_manager.h"
#include "app/zema/hostlib/switch_library.h"

namespace zem::zema {

Outcome SwitchHealthPublisher::SetProperty(const std::string& host_switch, const std::string& name,
                                           const void* data, size_t size, uint32_t flags) {
  const uint32_t result =
      switches_.SetHostProp(host_switch, name, {static_cast<const char*>(data), size}, flags);
  return result == 0 ? Outcome::Done() : Outcome::Failed(SwitchErrorText(result));
}

Outcome SwitchHealthPublisher::RemoveProperty(const std::string& host_switch, const std::string& name) {
  const uint32_t result = switches_.ClearHostProp(host_switch, name);
  if (result == 0 || result == kSwitchNotFound) return Outcome::Done();
  return Outcome::Failed(SwitchErrorText(result));
}

}  // namespace zem::zema
