#include "mpaclient/verticals.h"

#include <google/protobuf/message.h>

#include <array>
#include <stdexcept>

#include "proto/config/config_vertical.pb.h"
#include "proto/context/idfw_vertical.pb.h"
#include "proto/context/ids_pcap_vertical.pb.h"
#include "proto/context/ids_vertical.pb.h"
#include "proto/context/ouvi_vertical.pb.h"
#include "proto/firewall/firewall_vertical.pb.h"
#include "proto/healthcheck/healthcheck_vertical.pb.h"
#include "proto/ida/ida_vertical.pb.h"
#include "proto/livetrace/livetrace_vertical.pb.h"
#include "proto/lldp/lldp_vertical.pb.h"
#include "proto/monitoring/monitoring_vertical.pb.h"
#include "proto/packetcapture/packetcapture_vertical.pb.h"
#include "proto/support_bundle/support_bundle_vertical.pb.h"
#include "proto/switching/switching_unified.pb.h"
#include "proto/traceflow/traceflow_vertical.pb.h"

namespace zem {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using std::chrono::milliseconds;

constexpr milliseconds kPurge{300000};
constexpr milliseconds kSwitchingPurge{1800000};

template <class M>
const Message& Prototype() {
  return M::default_instance();
}

constexpr std::array kSwitchingTypes = {
    VerticalType{"com.orlane.zem.switching.HostConfigMsg", "host_config"},
    VerticalType{"com.orlane.zem.switching.HostConfigAckMsg", "host_config_ack"},
    VerticalType{"com.orlane.zem.switching.VifMsg", "vif"},
    VerticalType{"com.orlane.zem.switching.MaintenanceModeConfigMsg", "maintenance_mode_config"},
    VerticalType{"com.orlane.zem.switching.MaintenanceModeConfigResultMsg", "maintenance_mode_config_result"},
    VerticalType{"com.orlane.zem.switching.LogicalSwitchMsg", "logical_switch"},
    VerticalType{"com.orlane.zem.switching.LogicalSwitchBulkMsg", "logical_switch_bulk"},
    VerticalType{"com.orlane.zem.switching.TransportNodeEventMsg", "transport_node_event"},
    VerticalType{"com.orlane.zem.switching.ChecksumMsg", "checksum"},
    VerticalType{"com.orlane.zem.switching.HostProfileMsg", "host_profile"},
    VerticalType{"com.orlane.zem.switching.TransportNodeHostSwitchesMigrationMsg",
                 "transport_node_host_switches_migration"},
    VerticalType{"com.orlane.zem.switching.VTEPRecoveryRequestMsg", "vtep_recovery_request"},
    VerticalType{"com.orlane.zem.switching.VTEPRecoveryResultMsg", "vtep_recovery_result"},
    VerticalType{"com.orlane.zem.switching.VTEPAdminStateMgmtRequestMsg", "vtep_admin_state_mgmt_request"},
    VerticalType{"com.orlane.zem.switching.VTEPAdminStateMgmtResultMsg", "vtep_admin_state_mgmt_result"},
    VerticalType{"com.orlane.zem.switching.VtepIPSyncMsg", "vtep_ip_sync"},
};

constexpr std::array kTraceflowTypes = {
    VerticalType{"com.orlane.zem.traceflow.Traceflow.TraceflowPacketInRequestMsg", "packet_in_request"},
    VerticalType{"com.orlane.zem.traceflow.Traceflow.TraceflowPacketOutRequestStatusMsg",
                 "packet_out_request_status"},
    VerticalType{"com.orlane.zem.traceflow.Traceflow.TraceflowPacketOutRequestMsg", "packet_out_request",
                 true},
};

constexpr std::array kLivetraceTypes = {
    VerticalType{"com.orlane.zem.livetrace.Livetrace.LivetraceResponseMsg", "response"},
    VerticalType{"com.orlane.zem.livetrace.Livetrace.LivetraceStatusMsg", "status"},
    VerticalType{"com.orlane.zem.livetrace.Livetrace.LivetraceInvalidationMsg", "invalidation"},
    VerticalType{"com.orlane.zem.livetrace.Livetrace.LivetraceBarrierMsg", "barrier"},
    VerticalType{"com.orlane.zem.livetrace.Livetrace.LivetraceOnboardMsg", "onboard"},
    VerticalType{"com.orlane.zem.livetrace.Livetrace.LivetraceMsg", "request", true},
};

// One message under the three names that are in use for it.
constexpr std::array kIdaTypes = {
    VerticalType{"com.orlane.zem.ida.InventoryDiscoveryMessage.IdaMessage", "ida"},
    VerticalType{"com.orlane.zem.ida.IdaMessage", "ida"},
    VerticalType{"com.orlane.zem.ida.IdaMsg", "ida"},
};

constexpr std::array kControllerTypes = {VerticalType{"com.orlane.zem.config.MpLcpMsg", "mp_lcp"}};

constexpr std::array kIpReputationTypes = {
    VerticalType{"orlane.zem.firewall.IpReputationService.IpReputationEventRequestMsg", "event_request"}};

constexpr std::array kContextHealthTypes = {
    VerticalType{"com.orlane.zem.context.HealthStatusMsg", "health_status"},
    VerticalType{"com.orlane.zem.context.HealthStatusAckMsg", "health_status_ack"},
};

constexpr std::array kHealthCheckTypes = {
    VerticalType{"com.orlane.zem.healthcheck.Healthcheck.HealthCheckReportMsg", "report"},
    VerticalType{"com.orlane.zem.healthcheck.Healthcheck.HealthCheckRequestMsg", "request"},
};

constexpr std::span<const VerticalType> kRaw{};

constexpr bool kAppInit = true;
constexpr bool kNoAppInit = false;

#define ZEM_PROTOTYPES(package, stem) \
  &Prototype<orlane::zem::package::stem##MpUnifiedMsg>, &Prototype<orlane::zem::package::stem##HostUnifiedMsg>
#define ZEM_CLASSES(client, host, observer, stem) \
  "MpaClient" client, host, observer, #stem "MpUnifiedMsg", #stem "HostUnifiedMsg"

constexpr std::array kVerticals = {
    Vertical{VerticalId::kPacketCapture, "PacketCapture",
             ZEM_CLASSES("Pktcap", "PktcapHostService", "PktcapServiceObserver", PacketCapture), kNoAppInit,
             false, false, false, kPurge, kRaw, ZEM_PROTOTYPES(packetcapture, PacketCapture)},
    Vertical{VerticalId::kTraceflow, "Traceflow",
             ZEM_CLASSES("Traceflow", "TraceflowHostService", "TraceflowServiceObserver", Traceflow),
             kAppInit, false, false, false, kPurge, kTraceflowTypes, ZEM_PROTOTYPES(traceflow, Traceflow)},
    Vertical{VerticalId::kLldp, "LldpVertical",
             ZEM_CLASSES("Lldp", "LldpHostService", "LldpServiceObserver", Lldp), kNoAppInit, false, false,
             false, kPurge, kRaw, ZEM_PROTOTYPES(lldp, Lldp)},
    Vertical{VerticalId::kSupportBundle, "SupportBundle",
             ZEM_CLASSES("SupportBundle", "SupportBundleHostService", "SupportBundleServiceObserver",
                         SupportBundle),
             kNoAppInit, false, false, true, kPurge, kRaw, ZEM_PROTOTYPES(support_bundle, SupportBundle)},
    Vertical{VerticalId::kIda, "INVENTORY_DISCOVERY_APPLICATION",
             ZEM_CLASSES("Ida", "IdaHostService", "IdaServiceObserver", Ida), kAppInit, false, true, false,
             kPurge, kIdaTypes, ZEM_PROTOTYPES(ida, Ida)},
    Vertical{VerticalId::kControllerMgmt, "ControllerMgmtVertical",
             ZEM_CLASSES("ControllerMgmt", "CtrlMgmtHostService", "CtrlMgmtServiceObserver", CtrlMgmt),
             kAppInit, false, false, false, kPurge, kControllerTypes, ZEM_PROTOTYPES(config, CtrlMgmt)},
    Vertical{VerticalId::kSwitching, "SwitchingVertical",
             ZEM_CLASSES("Switching", "l2HostService", "L2ServiceObserver", Switching), kAppInit, true, false,
             false, kSwitchingPurge, kSwitchingTypes, ZEM_PROTOTYPES(switching, Switching)},
    Vertical{VerticalId::kAlarmsProvider, "AlarmsProvider",
             ZEM_CLASSES("Collector", "CollectorHostService", "CollectorServiceObserver", Collector),
             kNoAppInit, false, false, false, kPurge, kRaw, ZEM_PROTOTYPES(monitoring, Collector)},
    Vertical{VerticalId::kLivetrace, "livetrace",
             ZEM_CLASSES("Livetrace", "LivetraceHostService", "LivetraceServiceObserver", Livetrace),
             kAppInit, false, false, false, kPurge, kLivetraceTypes, ZEM_PROTOTYPES(livetrace, Livetrace)},
    Vertical{VerticalId::kIpReputation, "ZEM-IpReputationEventService",
             ZEM_CLASSES("IpReputation", nullptr, "IpReputationServiceObserver", IpReputation), kNoAppInit,
             false, false, false, kPurge, kIpReputationTypes, ZEM_PROTOTYPES(firewall, IpReputation)},
    Vertical{VerticalId::kIdfw, "IDFW-Vertical",
             ZEM_CLASSES("Idfw", "IdfwHostService", "IdfwServiceObserver", Idfw), kNoAppInit, false, false,
             false, kPurge, kRaw, ZEM_PROTOTYPES(context::idfw, Idfw)},
    Vertical{VerticalId::kContextHealth, "Context-Health",
             ZEM_CLASSES("ContextHealth", "CtxHealthHostService", "OuviServiceObserver", Ouvi), kAppInit,
             false, false, false, kPurge, kContextHealthTypes, ZEM_PROTOTYPES(context, Ouvi)},
    Vertical{VerticalId::kIds, "ZEM-IntrusionServices",
             ZEM_CLASSES("Ids", nullptr, "IdsServiceObserver", Ids), kNoAppInit, false, false, false, kPurge,
             kRaw, ZEM_PROTOTYPES(context::ids, Ids)},
    Vertical{VerticalId::kIdsPcap, "ZEM-IdsPcapService",
             ZEM_CLASSES("IdsPcap", nullptr, "IdsPcapServiceObserver", IdsPcap), kNoAppInit, false, false,
             false, kPurge, kRaw, ZEM_PROTOTYPES(context::ids, IdsPcap)},
    Vertical{VerticalId::kHealthCheck, "HealthCheck",
             ZEM_CLASSES("HealthCheck", "HealthCheckHostService", "HealthCheckServiceObserver", HealthCheck),
             kAppInit, false, false, false, kPurge, kHealthCheckTypes,
             ZEM_PROTOTYPES(healthcheck, HealthCheck)},
};
static_assert(kVerticals.size() == static_cast<size_t>(VerticalId::kCount));

#undef ZEM_PROTOTYPES
#undef ZEM_CLASSES

const FieldDescriptor* Optional(const Message& prototype, const char* name) {
  return prototype.GetDescriptor()->FindFieldByName(name);
}

const FieldDescriptor* Required(const Message& prototype, const char* name) {
  const FieldDescriptor* field = Optional(prototype, name);
  if (field == nullptr) {
    throw std::logic_error("no member " + std::string(name) + " in " + prototype.GetTypeName());
  }
  return field;
}

}  // namespace

const Vertical* FindVertical(std::string_view name) {
  for (const Vertical& vertical : kVerticals) {
    if (name == vertical.name) return &vertical;
  }
  return nullptr;
}

const Vertical& GetVertical(VerticalId id) { return kVerticals[static_cast<size_t>(id)]; }

const UnifiedLayout& UnifiedLayout::Of(const Vertical& vertical) {
  static const auto layouts = [] {
    std::vector<UnifiedLayout> all;
    all.reserve(kVerticals.size());
    for (const Vertical& each : kVerticals) all.emplace_back(each);
    return all;
  }();
  return layouts[static_cast<size_t>(vertical.id)];
}

UnifiedLayout::UnifiedLayout(const Vertical& vertical) : vertical_(vertical) {
  const Message& mp = vertical.mp_prototype();
  const Message& host = vertical.host_prototype();
  mp_type_ = Required(mp, "type");
  host_type_ = Required(host, "type");
  // One vertical that does no handshake can carry the message all the same.
  mp_app_init_ = vertical.needs_app_init ? Required(mp, "app_init") : Optional(mp, "app_init");
  mp_app_init_config_ack_ = vertical.needs_app_init ? Required(mp, "app_init_config_ack") : nullptr;
  host_app_init_config_ = vertical.needs_app_init ? Required(host, "app_init_config") : nullptr;
  mp_raw_ = vertical.types.empty() ? Required(mp, "raw_payload") : nullptr;
  host_raw_ = vertical.types.empty() ? Required(host, "raw_payload") : nullptr;
  for (const VerticalType& type : vertical.types) {
    members_.push_back({type.type_name, type.inbound_only ? nullptr : Required(mp, type.member),
                        Required(host, type.member)});
  }
}

std::unique_ptr<Message> UnifiedLayout::NewMp(const std::string& type_name) const {
  std::unique_ptr<Message> unified(vertical_.mp_prototype().New());
  unified->GetReflection()->SetString(unified.get(), mp_type_, type_name);
  return unified;
}

std::unique_ptr<Message> UnifiedLayout::NewHost() const {
  return std::unique_ptr<Message>(vertical_.host_prototype().New());
}

Message* UnifiedLayout::MutableMpMember(Message* unified, std::string_view type_name) const {
  const FieldDescriptor* field = mp_raw_;
  if (field != nullptr) {
    // Whatever it is, it goes as bytes.
  } else if (type_name == kAppInitType) {
    field = mp_app_init_;
  } else if (type_name == kAppInitConfigAckType) {
    field = mp_app_init_config_ack_;
  } else {
    for (const Member& member : members_) {
      if (member.type_name == type_name) field = member.mp;
    }
  }
  return field != nullptr ? unified->GetReflection()->MutableMessage(unified, field) : nullptr;
}

const Message* UnifiedLayout::HostMember(const Message& unified) const {
  const auto* reflection = unified.GetReflection();
  if (const Message* config = HostAppInitConfig(unified)) return config;
  if (host_raw_ != nullptr) {
    return reflection->HasField(unified, host_raw_) ? &reflection->GetMessage(unified, host_raw_) : nullptr;
  }
  for (const Member& member : members_) {
    if (reflection->HasField(unified, member.host)) return &reflection->GetMessage(unified, member.host);
  }
  return nullptr;
}

const Message* UnifiedLayout::HostAppInitConfig(const Message& unified) const {
  if (host_app_init_config_ == nullptr) return nullptr;
  const auto* reflection = unified.GetReflection();
  if (!reflection->HasField(unified, host_app_init_config_)) return nullptr;
  return &reflection->GetMessage(unified, host_app_init_config_);
}

std::string UnifiedLayout::HostType(const Message& unified) const {
  return unified.GetReflection()->GetString(unified, host_type_);
}

}  // namespace zem
