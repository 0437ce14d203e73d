#include "app/ctxteng/base/ictxt_client.h"

#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

}  // namespace

ICtxtClient::~ICtxtClient() = default;

void ICtxtClient::RegisterUpmMonitor(const std::shared_ptr<zem::upm::UPMService>&) {
  ZLOG_DEBUG("ICtxtClient: Base RegisterUpmMonitor function");
}

void ICtxtClient::GiInfoHandler(const std::shared_ptr<VmData>&) {
  ZLOG_DEBUG("ICtxtClient: Base Gi Info Handler");
}

void ICtxtClient::TimerEventHandler(const std::shared_ptr<VmData>&) {
  ZLOG_DEBUG("ICtxtClient: Base Timer Event Handler");
}

bool ICtxtClient::NetworkEventHandler(const std::shared_ptr<const ConnInfo>&,
                                      const std::shared_ptr<VmData>&) {
  return true;
}

void ICtxtClient::SystemEventHandler(const std::shared_ptr<const UserSessionInfo>&,
                                     const std::shared_ptr<VmData>&) {
  ZLOG_DEBUG("ICtxtClient: Base System Event Handler");
}

}  // namespace Ctxt
