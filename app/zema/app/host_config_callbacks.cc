#include "app/zema/app/host_config_callbacks.h"

#include <utility>

#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

void HostConfigCallbacks::Register(uint32_t module_id, Callback callback) {
  const std::lock_guard lock(mutex_);
  if (!callbacks_.emplace(module_id, std::move(callback)).second) {
    ZLOG_INFO("[%s] Module_id %u has registered HostCfgMsg callback\n", "RegisterHostCfgMsgCallBack",
              module_id);
  }
}

void HostConfigCallbacks::Call(const orlane::zem::switching::HostConfigMsg& config) {
  std::map<uint32_t, Callback> callbacks;
  {
    const std::lock_guard lock(mutex_);
    callbacks = callbacks_;
  }
  for (const auto& [module, callback] : callbacks) callback(config);
}

}  // namespace zem::zema
