#pragma once

#include <memory>
#include <utility>

#include "app/ctxteng/idfw/ilogin_logoff_event_listener.h"
#include "app/ctxteng/idfw/login_logoff_info_cache.h"

namespace Ctxt {

/// Puts the logons into the cache.
class LoginLogoffEventListener final : public ILoginLogoffEventListener {
 public:
  explicit LoginLogoffEventListener(std::shared_ptr<LoginLogoffInfoCache> cache) : cache_(std::move(cache)) {}
  void OnEvent(std::unique_ptr<LoginLogoffInfo> info) override { cache_->Add(std::move(info)); }

 private:
  const std::shared_ptr<LoginLogoffInfoCache> cache_;
};

}  // namespace Ctxt
