#pragma once

#include <memory>

#include "app/ctxteng/idfw/login_logoff_info.h"

namespace Ctxt {

/// Takes the logons of the guests.
///
/// Threads: any, several at once; may not block.
class ILoginLogoffEventListener {
 public:
  virtual ~ILoginLogoffEventListener() = default;
  virtual void OnEvent(std::unique_ptr<LoginLogoffInfo> info) = 0;
};

}  // namespace Ctxt
