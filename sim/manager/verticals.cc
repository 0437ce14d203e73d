#include "sim/manager/verticals.h"

#include <array>

#include "proto/config/config_vertical.rpc.h"
#include "proto/context/idfw_vertical.rpc.h"
#include "proto/context/ids_pcap_vertical.rpc.h"
#include "proto/context/ids_vertical.rpc.h"
#include "proto/context/ouvi_vertical.rpc.h"
#include "proto/firewall/firewall_vertical.rpc.h"
#include "proto/healthcheck/healthcheck_vertical.rpc.h"
#include "proto/ida/ida_vertical.rpc.h"
#include "proto/livetrace/livetrace_vertical.rpc.h"
#include "proto/lldp/lldp.pb.h"
#include "proto/lldp/lldp_vertical.rpc.h"
#include "proto/messaging/l2_vertical.rpc.h"
#include "proto/monitoring/monitoring_vertical.rpc.h"
#include "proto/packetcapture/packetcapture.pb.h"
#include "proto/packetcapture/packetcapture_vertical.rpc.h"
#include "proto/support_bundle/support_bundle.pb.h"
#include "proto/support_bundle/support_bundle_vertical.rpc.h"
#include "proto/switching/switching_unified.pb.h"
#include "proto/traceflow/traceflow_vertical.rpc.h"

namespace zem::sim {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using orlane::zem::VoidMsg;

template <class M>
const Message& Prototype() {
  return M::default_instance();
}

template <class Service>
class MpServiceOf final : public Service::Service {
 public:
  MpServiceOf(const char* name, MpSink* sink) : name_(name), sink_(sink) {}

  void MsgHandler(rpc::ServerContext& context, const GenericUnifiedMsg& request,
                  rpc::CallHandle<VoidMsg> call) override {
    sink_->OnPublish(name_, context.client_id(), request);
    call.Finish(VoidMsg());
  }
  void RpcMsgHandler(rpc::ServerContext& context, const GenericUnifiedMsg& request,
                     rpc::CallHandle<GenericUnifiedMsg> call) override {
    sink_->OnRequest(name_, context.client_id(), request, std::move(call));
  }

 private:
  const char* const name_;
  MpSink* const sink_;
};

template <class Service>
std::shared_ptr<rpc::ServiceBase> MakeService(const char* name, MpSink* sink) {
  return std::make_shared<MpServiceOf<Service>>(name, sink);
}

template <class Service>
class HostStubOf final : public HostStub {
 public:
  explicit HostStubOf(typename Service::Stub stub) : stub_(std::move(stub)) {}

  void Publish(const rpc::ClientContext& context, const GenericUnifiedMsg& message,
               rpc::CallObserver<VoidMsg>* observer) override {
    stub_.MsgHandler(context, message, observer);
  }
  rpc::CallHandle<GenericUnifiedMsg> Request(const rpc::ClientContext& context,
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

template <class Service>
void MakeStub(rpc::StubFactory& factory, rpc::StubRequest request, HostStubDone done) {
  factory.create<typename Service::Stub>(
      std::move(request),
      [done = std::move(done)](std::optional<typename Service::Stub> stub, const rpc::Status& status) {
        done(stub ? std::make_shared<HostStubOf<Service>>(std::move(*stub)) : nullptr, status);
      });
}

// Packages whose messages have one more level in their wire type names.
struct ExtraLevel {
  std::string_view package;
  const char* prefix;
};
constexpr std::array kExtraLevels = {
    ExtraLevel{"orlane.zem.traceflow", "com.orlane.zem.traceflow.Traceflow."},
    ExtraLevel{"orlane.zem.livetrace", "com.orlane.zem.livetrace.Livetrace."},
    ExtraLevel{"orlane.zem.healthcheck", "com.orlane.zem.healthcheck.Healthcheck."},
    ExtraLevel{"orlane.zem.firewall", "orlane.zem.firewall.IpReputationService."},
};

#define ZEM_PROTOTYPES(package, stem) \
  &Prototype<orlane::zem::package::stem##MpUnifiedMsg>, &Prototype<orlane::zem::package::stem##HostUnifiedMsg>
#define ZEM_SERVICES(package, mp, host) \
  &MakeService<orlane::zem::package::mp>, &MakeStub<orlane::zem::package::host>
#define ZEM_SERVICE(package, mp) &MakeService<orlane::zem::package::mp>, nullptr

std::vector<ManagerVertical> MakeTable() {
  return {
      {"PacketCapture", ZEM_PROTOTYPES(packetcapture, PacketCapture),
       ZEM_SERVICES(packetcapture, PckCapMpService, PckCapHostService)},
      {"Traceflow", ZEM_PROTOTYPES(traceflow, Traceflow),
       ZEM_SERVICES(traceflow, TraceflowMpService, TraceflowHostService)},
      {"LldpVertical", ZEM_PROTOTYPES(lldp, Lldp), ZEM_SERVICES(lldp, LldpMpService, LldpHostService)},
      {"SupportBundle", ZEM_PROTOTYPES(support_bundle, SupportBundle),
       ZEM_SERVICES(support_bundle, BundleMpService, BundleHostService)},
      {"INVENTORY_DISCOVERY_APPLICATION", ZEM_PROTOTYPES(ida, Ida),
       ZEM_SERVICES(ida, IdaMpService, IdaHostService)},
      {"ControllerMgmtVertical", ZEM_PROTOTYPES(config, CtrlMgmt),
       ZEM_SERVICES(config, CtrlMgmtMpService, CtrlMgmtHostService)},
      {"SwitchingVertical", ZEM_PROTOTYPES(switching, Switching),
       ZEM_SERVICES(messaging, L2MpService, L2HostService)},
      {"AlarmsProvider", ZEM_PROTOTYPES(monitoring, Collector),
       ZEM_SERVICES(monitoring, CollectorMpService, CollectorHostService)},
      {"livetrace", ZEM_PROTOTYPES(livetrace, Livetrace),
       ZEM_SERVICES(livetrace, LivetraceMpService, LivetraceHostService)},
      {"ZEM-IpReputationEventService", ZEM_PROTOTYPES(firewall, IpReputation),
       ZEM_SERVICE(firewall, IpReputationEventNotificationRpc)},
      {"IDFW-Vertical", ZEM_PROTOTYPES(context::idfw, Idfw),
       ZEM_SERVICES(context::idfw, IdfwMpService, IdfwHostService)},
      {"Context-Health", ZEM_PROTOTYPES(context, Ouvi),
       ZEM_SERVICES(context, OuviMpService, OuviHostService)},
      {"ZEM-IntrusionServices", ZEM_PROTOTYPES(context::ids, Ids), ZEM_SERVICE(context::ids, IdsMpService)},
      {"ZEM-IdsPcapService", ZEM_PROTOTYPES(context::ids, IdsPcap),
       ZEM_SERVICE(context::ids, IdsPcapSecurityDataService)},
      {"HealthCheck", ZEM_PROTOTYPES(healthcheck, HealthCheck),
       ZEM_SERVICES(healthcheck, HealthCheckMpService, HealthCheckHostService)},
  };
}

#undef ZEM_PROTOTYPES
#undef ZEM_SERVICES
#undef ZEM_SERVICE

// The messages of the verticals whose messages travel unparsed.
constexpr std::array kRawMessages = {
    &Prototype<orlane::zem::lldp::LldpInterfacesRequestMsg>,
    &Prototype<orlane::zem::lldp::LldpInterfacesMsg>,
    &Prototype<orlane::zem::support_bundle::BundleGenerationRequestMsg>,
    &Prototype<orlane::zem::support_bundle::BundleStatusRequestMsg>,
    &Prototype<orlane::zem::support_bundle::BundleGenerationCancellationRequestMsg>,
    &Prototype<orlane::zem::support_bundle::BundleStatusResponseMsg>,
    &Prototype<orlane::zem::packetcapture::PktCapManagerToHostMsg>,
    &Prototype<orlane::zem::packetcapture::PktCapHostToManagerMsg>,
};

const FieldDescriptor* TypeField(const Message& unified) {
  return unified.GetDescriptor()->FindFieldByName("type");
}

}  // namespace

const std::vector<ManagerVertical>& ManagerVerticals() {
  static const auto table = MakeTable();
  return table;
}

const ManagerVertical* FindManagerVertical(std::string_view name) {
  for (const ManagerVertical& vertical : ManagerVerticals()) {
    if (name == vertical.name) return &vertical;
  }
  return nullptr;
}

std::string WireTypeName(const google::protobuf::Descriptor& message) {
  if (message.full_name() == "orlane.zem.ida.IdaMsg") return "com.orlane.zem.ida.IdaMessage";
  for (const ExtraLevel& level : kExtraLevels) {
    if (message.file()->package() == level.package) return level.prefix + message.name();
  }
  return "com." + message.full_name();
}

const Message* SetMember(const Message& unified) {
  std::vector<const FieldDescriptor*> fields;
  unified.GetReflection()->ListFields(unified, &fields);
  for (const FieldDescriptor* field : fields) {
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && !field->is_repeated()) {
      return &unified.GetReflection()->GetMessage(unified, field);
    }
  }
  return nullptr;
}

const FieldDescriptor* FindMember(const Message& unified, std::string_view name) {
  const auto* descriptor = unified.GetDescriptor();
  for (int i = 0; i < descriptor->field_count(); ++i) {
    const FieldDescriptor* field = descriptor->field(i);
    if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE) continue;
    if (name == field->name() || name == field->message_type()->name() ||
        name == WireTypeName(*field->message_type())) {
      return field;
    }
  }
  return nullptr;
}

const Message* FindRawMessage(const Message& unified, std::string_view name) {
  const std::string_view last = name.substr(name.find_last_of(".$") + 1);
  for (const auto prototype : kRawMessages) {
    const auto* const descriptor = prototype().GetDescriptor();
    if (descriptor->name() == last &&
        descriptor->file()->package() == unified.GetDescriptor()->file()->package())
      return &prototype();
  }
  return nullptr;
}

std::string TypeOf(const Message& unified) {
  return unified.GetReflection()->GetString(unified, TypeField(unified));
}

void SetType(Message* unified, const std::string& type) {
  unified->GetReflection()->SetString(unified, TypeField(*unified), type);
}

}  // namespace zem::sim
