#include "mpaclient/client_factory.h"

#include <array>
#include <string>
#include <utility>

#include "framework/log/log.h"
#include "mpaclient/host_services.h"
#include "mpaclient/mpa_client_app_specific.h"
#include "mpaclient/mpa_client_private_base.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"
#include "platform/provider/provider.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"

namespace zem {
namespace {

constexpr LogSource kLog{"mpa-client"};

template <class Service>
class MpStubOf final : public MpStub {
 public:
  explicit MpStubOf(typename Service::Stub stub) : stub_(std::move(stub)) {}

  rpc::CallHandle<VoidMsg> MsgHandler(const rpc::ClientContext& context, const GenericUnifiedMsg& message,
                                      rpc::CallObserver<VoidMsg>* observer) override {
    return stub_.MsgHandler(context, message, observer);
  }
  rpc::CallHandle<GenericUnifiedMsg> RpcMsgHandler(const rpc::ClientContext& context,
                                                   const GenericUnifiedMsg& message,
                                                   rpc::CallObserver<GenericUnifiedMsg>* observer) override {
    return stub_.RpcMsgHandler(context, message, observer);
  }
  void SetOnStreamDown(std::function<void(rpc::CloseReason)> hook) override {
    stub_.SetOnStreamDown(std::move(hook));
  }

 private:
  typename Service::Stub stub_;
};

struct NoHostService {};

}  // namespace

/// The manager client of one vertical: it calls the manager's `MpService` and serves `HostService`.
template <class MpService, class HostService, class AppSpecific>
class MpaClientPrivate final : public MpaClientPrivateBase {
 public:
  using MpaClientPrivateBase::MpaClientPrivateBase;

 protected:
  void RequestStub(rpc::StubRequest request, StubDone done) override {
    using Stub = typename MpService::Stub;
    forwarding_provider().rpc().stubs().template create<Stub>(
        std::move(request), [done = std::move(done)](std::optional<Stub> stub, const rpc::Status& status) {
          done(stub ? std::make_unique<MpStubOf<MpService>>(std::move(*stub)) : nullptr, status);
        });
  }

  std::shared_ptr<MpaClientAppSpecific> MakeAppSpecific(std::shared_ptr<MpaClient> self) override {
    return std::make_shared<AppSpecific>(std::move(self));
  }

  std::shared_ptr<rpc::ServiceBase> MakeHostService(std::shared_ptr<MpaClientAppSpecific> instance) override {
    if constexpr (std::is_same_v<HostService, NoHostService>) {
      return nullptr;
    } else {
      return std::make_shared<HostService>(std::move(instance));
    }
  }
};

namespace {

template <class MpService, class HostService, class AppSpecific>
std::shared_ptr<MpaClient> Make(MpaClientArguments arguments, const Vertical& vertical) {
  return std::make_shared<MpaClientPrivate<MpService, HostService, AppSpecific>>(std::move(arguments),
                                                                                 vertical);
}

/// Binds a vertical to its two services and its class.
struct Row {
  VerticalId id;
  std::shared_ptr<MpaClient> (*client)(MpaClientArguments, const Vertical&);
};

constexpr std::array kRows = {
    Row{VerticalId::kPacketCapture,
        &Make<packetcapture::PckCapMpService, PktcapHostService, MpaClientPktcap>},
    Row{VerticalId::kTraceflow,
        &Make<traceflow::TraceflowMpService, TraceflowHostService, MpaClientTraceflow>},
    Row{VerticalId::kLldp, &Make<lldp::LldpMpService, LldpHostService, MpaClientLldp>},
    Row{VerticalId::kSupportBundle,
        &Make<support_bundle::BundleMpService, SupportBundleHostService, MpaClientSupportBundle>},
    Row{VerticalId::kIda, &Make<ida::IdaMpService, IdaHostService, MpaClientIda>},
    Row{VerticalId::kControllerMgmt,
        &Make<config::CtrlMgmtMpService, CtrlMgmtHostService, MpaClientControllerMgmt>},
    Row{VerticalId::kSwitching, &Make<messaging::L2MpService, l2HostService, MpaClientSwitching>},
    Row{VerticalId::kAlarmsProvider,
        &Make<monitoring::CollectorMpService, CollectorHostService, MpaClientCollector>},
    Row{VerticalId::kLivetrace,
        &Make<livetrace::LivetraceMpService, LivetraceHostService, MpaClientLivetrace>},
    Row{VerticalId::kIpReputation,
        &Make<firewall::IpReputationEventNotificationRpc, NoHostService, MpaClientIpReputation>},
    Row{VerticalId::kIdfw, &Make<context::idfw::IdfwMpService, IdfwHostService, MpaClientIdfw>},
    Row{VerticalId::kContextHealth,
        &Make<context::OuviMpService, CtxHealthHostService, MpaClientContextHealth>},
    Row{VerticalId::kIds, &Make<context::ids::IdsMpService, NoHostService, MpaClientIds>},
    Row{VerticalId::kIdsPcap,
        &Make<context::ids::IdsPcapSecurityDataService, NoHostService, MpaClientIdsPcap>},
    Row{VerticalId::kHealthCheck,
        &Make<healthcheck::HealthCheckMpService, HealthCheckHostService, MpaClientHealthCheck>},
};
static_assert(kRows.size() == static_cast<size_t>(VerticalId::kCount));

}  // namespace

std::shared_ptr<MpaClient> MakeMpaClient(MpaClientArguments arguments) {
  // The bus needs no services, so the plain client carries every vertical.
  const Vertical* const vertical =
      arguments.port != MpaClient::kBusPort ? FindVertical(arguments.name) : nullptr;
  if (vertical != nullptr)
    return kRows[static_cast<size_t>(vertical->id)].client(std::move(arguments), *vertical);
  if (arguments.name != "MpaClientTest" && FindVertical(arguments.name) == nullptr) {
    ZLOG_WARN("Unknown app type %s", arguments.name.c_str());
  }
  return std::make_shared<MpaClient>(std::move(arguments));
}

}  // namespace zem
