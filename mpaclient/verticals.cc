#include "mpaclient/verticals.h"

#include <google/protobuf/message.h>

#include <array>

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

using google::protobuf::Message;
using std::chrono::microseconds;
using std::chrono::milliseconds;

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

// Three names are in use for the one message.
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

constexpr VerticalTraits kPlain{};
constexpr VerticalTraits kAppInit{.needs_app_init = true};

constexpr std::array kSwitchingSends = {
    SentType{"com.orlane.zem.switching.VifMsg", kRmqClientRpcRequest, "vif_msg_rpc_correlation_id"},
    SentType{"com.orlane.zem.switching.HostConfigMsg", kRmqClientRpcResponse},
    SentType{"com.orlane.zem.switching.LogicalSwitchBulkMsg", kRmqClientRpcResponse},
    SentType{"com.orlane.zem.switching.LogicalSwitchMsg", kRmqClientRpcResponse},
    SentType{"com.orlane.zem.switching.MaintenanceModeConfigResultMsg", kRmqClientRpcResponse},
    SentType{"com.orlane.zem.switching.HostProfileMsg", kRmqClientRpcResponse},
    SentType{"com.orlane.zem.switching.TransportNodeHostSwitchesMigrationMsg", kRmqClientRpcResponse},
    SentType{"com.orlane.zem.switching.VTEPRecoveryResultMsg", kRmqClientRpcResponse},
    SentType{"com.orlane.zem.switching.VTEPAdminStateMgmtResultMsg", kRmqClientRpcResponse},
    SentType{"com.orlane.zem.switching.HostConfigAckMsg", kRmqClientRpcRequest, "mp_rpc_correlation_id"},
    SentType{"com.orlane.zem.switching.TransportNodeEventMsg", kRmqClientRpcRequest, "mp_rpc_correlation_id"},
    SentType{"com.orlane.zem.switching.ChecksumMsg", kRmqClientRpcRequest, "mp_rpc_correlation_id"},
};

constexpr std::array kControllerSends = {
    SentType{"com.orlane.zem.config.MpLcpMsg", kRmqClientRpcRequest, nullptr, "EMPTY"}};

constexpr std::array kLldpSends = {SentType{"com.orlane.zem.lldp.LldpInterfacesMsg", kRmqClientRpcResponse}};

constexpr std::array kSupportBundleSends = {
    SentType{"com.orlane.zem.support_bundle.SupportBundle.BundleStatusResponseMsg", kRmqClientRpcResponse}};

#define ZEM_PROTOTYPES(package, stem) \
  &Prototype<orlane::zem::package::stem##MpUnifiedMsg>, &Prototype<orlane::zem::package::stem##HostUnifiedMsg>
#define ZEM_CLASSES(client, host, observer, stem) \
  "MpaClient" client, host, observer, #stem "MpUnifiedMsg", #stem "HostUnifiedMsg"

constexpr std::array kVerticals = {
    Vertical{VerticalId::kPacketCapture, "PacketCapture", "PacketCapture",
             // Whoever has an upload's token may write the manager's file.
             ZEM_CLASSES("Pktcap", "PktcapHostService", "PktcapServiceObserver", PacketCapture),
             VerticalTraits{.secret = true}, kRaw, ZEM_PROTOTYPES(packetcapture, PacketCapture)},
    Vertical{VerticalId::kTraceflow, "Traceflow", "Traceflow",
             ZEM_CLASSES("Traceflow", "TraceflowHostService", "TraceflowServiceObserver", Traceflow),
             kAppInit, kTraceflowTypes, ZEM_PROTOTYPES(traceflow, Traceflow)},
    Vertical{VerticalId::kLldp, "LldpVertical", "0",
             ZEM_CLASSES("Lldp", "LldpHostService", "LldpServiceObserver", Lldp), kPlain, kRaw,
             ZEM_PROTOTYPES(lldp, Lldp),
             VerticalRecords{.sent = kLldpSends, .log = {"tarvik", "lldp"}, .request_type = "interfaces"}},
    Vertical{VerticalId::kSupportBundle, "SupportBundle", "unused",
             ZEM_CLASSES("SupportBundle", "SupportBundleHostService", "SupportBundleServiceObserver",
                         SupportBundle),
             VerticalTraits{.secret = true, .only_serves = true}, kRaw,
             ZEM_PROTOTYPES(support_bundle, SupportBundle),
             VerticalRecords{.sent = kSupportBundleSends, .log = {"tarvik", "supportbundle"}}},
    Vertical{VerticalId::kIda, "INVENTORY_DISCOVERY_APPLICATION", "INVENTORY_DISCOVERY_APPLICATION",
             ZEM_CLASSES("Ida", "IdaHostService", "IdaServiceObserver", Ida),
             VerticalTraits{.needs_app_init = true, .old_type_names = true}, kIdaTypes,
             ZEM_PROTOTYPES(ida, Ida)},
    Vertical{VerticalId::kControllerMgmt, "ControllerMgmtVertical", "unused",
             ZEM_CLASSES("ControllerMgmt", "CtrlMgmtHostService", "CtrlMgmtServiceObserver", CtrlMgmt),
             kAppInit, kControllerTypes, ZEM_PROTOTYPES(config, CtrlMgmt),
             VerticalRecords{kControllerSends,
                             "com.orlane.zem.config.MpLcpMsg",
                             {"tarvik", "zema"},
                             "ControllerListAppRxCallback"}},
    Vertical{VerticalId::kSwitching, "SwitchingVertical", "unused",
             ZEM_CLASSES("Switching", "l2HostService", "L2ServiceObserver", Switching),
             VerticalTraits{.needs_app_init = true,
                            .routing_key_as_aph = true,
                            .purge_period = milliseconds(1800000),
                            .bus_retry = microseconds(1000000)},
             kSwitchingTypes, ZEM_PROTOTYPES(switching, Switching),
             VerticalRecords{kSwitchingSends,
                             "com.orlane.zem.customer.ClientRpcRequest",
                             {"tarvik", "zema"},
                             "ZemaAppRxCallback"}},
    Vertical{VerticalId::kAlarmsProvider, "AlarmsProvider", "unused",
             ZEM_CLASSES("Collector", "CollectorHostService", "CollectorServiceObserver", Collector), kPlain,
             kRaw, ZEM_PROTOTYPES(monitoring, Collector)},
    Vertical{VerticalId::kLivetrace, "livetrace", "livetrace",
             ZEM_CLASSES("Livetrace", "LivetraceHostService", "LivetraceServiceObserver", Livetrace),
             // As with captures: the id of an upload lets its owner write.
             VerticalTraits{.needs_app_init = true, .secret = true}, kLivetraceTypes,
             ZEM_PROTOTYPES(livetrace, Livetrace)},
    Vertical{VerticalId::kIpReputation, "ZEM-IpReputationEventService", "ZEM-IpReputationEventService",
             ZEM_CLASSES("IpReputation", nullptr, "IpReputationServiceObserver", IpReputation), kPlain,
             kIpReputationTypes, ZEM_PROTOTYPES(firewall, IpReputation)},
    Vertical{VerticalId::kIdfw, "IDFW-Vertical", "8888",
             ZEM_CLASSES("Idfw", "IdfwHostService", "IdfwServiceObserver", Idfw), kPlain, kRaw,
             ZEM_PROTOTYPES(context::idfw, Idfw)},
    Vertical{VerticalId::kContextHealth, "Context-Health", "7777",
             ZEM_CLASSES("ContextHealth", "CtxHealthHostService", "OuviServiceObserver", Ouvi), kAppInit,
             kContextHealthTypes, ZEM_PROTOTYPES(context, Ouvi)},
    Vertical{VerticalId::kIds, "ZEM-IntrusionServices", "1801",
             ZEM_CLASSES("Ids", nullptr, "IdsServiceObserver", Ids), kPlain, kRaw,
             ZEM_PROTOTYPES(context::ids, Ids)},
    Vertical{VerticalId::kIdsPcap, "ZEM-IdsPcapService", "1802",
             ZEM_CLASSES("IdsPcap", nullptr, "IdsPcapServiceObserver", IdsPcap), kPlain, kRaw,
             ZEM_PROTOTYPES(context::ids, IdsPcap)},
    Vertical{VerticalId::kHealthCheck, "HealthCheck", "HealthCheck",
             ZEM_CLASSES("HealthCheck", "HealthCheckHostService", "HealthCheckServiceObserver", HealthCheck),
             kAppInit, kHealthCheckTypes, ZEM_PROTOTYPES(healthcheck, HealthCheck)},
};
static_assert(kVerticals.size() == static_cast<size_t>(VerticalId::kCount));

#undef ZEM_PROTOTYPES
#undef ZEM_CLASSES

}  // namespace

const Vertical* FindVertical(std::string_view name) {
  for (const Vertical& vertical : kVerticals) {
    if (name == vertical.name) return &vertical;
  }
  return nullptr;
}

const Vertical& GetVertical(VerticalId id) { return kVerticals[static_cast<size_t>(id)]; }

std::span<const Vertical> AllVerticals() { return kVerticals; }

}  // namespace zem
