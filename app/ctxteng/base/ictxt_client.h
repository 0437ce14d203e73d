#pragma once

#include <memory>

#include "app/ctxteng/base/client_param.h"
#include "app/ctxteng/base/conn_info.h"
#include "app/ctxteng/base/user_session_info.h"
#include "app/ctxteng/base/vm_data.h"

namespace zem::covedb {
class CoveDbClientInterface;
}
namespace zem::upm {
class UPMService;
}

namespace Ctxt {

/// A consumer of guest events.
///
/// Threads: `Initialize` on the engine's start-up thread, `Shutdown` on the thread that stops the engine; the
/// handlers on the library's worker threads, several guests at once.  A handler copies what it needs and
/// returns: it may not wait, and what it throws ends the handling of the event.
class ICtxtClient {
 public:
  virtual ~ICtxtClient();

  virtual void Initialize(const CtxtClientParam& param,
                          const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store) = 0;
  virtual void RegisterUpmMonitor(const std::shared_ptr<zem::upm::UPMService>& profiles);
  virtual void VmPowerOnEventHandler(const std::shared_ptr<VmData>& vm) = 0;
  virtual void VmPowerOffEventHandler(const std::shared_ptr<VmData>& vm) = 0;
  virtual void GiInfoHandler(const std::shared_ptr<VmData>& vm);
  virtual void TimerEventHandler(const std::shared_ptr<VmData>& vm);
  /// Returns whether the firewall should be told of the connection.
  virtual bool NetworkEventHandler(const std::shared_ptr<const ConnInfo>& connection,
                                   const std::shared_ptr<VmData>& vm);
  virtual void SystemEventHandler(const std::shared_ptr<const UserSessionInfo>& session,
                                  const std::shared_ptr<VmData>& vm);
  virtual void Shutdown() = 0;
};

}  // namespace Ctxt
