#pragma once

#include <memory>

#include "app/ctxteng/base/ctxt_msg.h"

namespace orlane::zem::context::idfw {
class LoginLogoffEventMsg;
}

namespace Ctxt {

/// Brings batches of logons to somebody.
///
/// Threads: one, the delivery's.
class BaseLoginLogoffInfoMessenger {
 public:
  using EventMsg = orlane::zem::context::idfw::LoginLogoffEventMsg;

  virtual ~BaseLoginLogoffInfoMessenger() = default;
  virtual void Connect() = 0;
  virtual void Disconnect() = 0;
  /// Sends what is pending and waits until it is acknowledged; false when it is not.
  virtual bool Send() = 0;
  virtual std::shared_ptr<CtxtMsg> MakeMessage(const std::shared_ptr<EventMsg>& events) = 0;
};

}  // namespace Ctxt
