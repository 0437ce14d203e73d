#pragma once

#include "mpaclient/mpa_client_host_service.h"
#include "proto/config/config_vertical.rpc.h"
#include "proto/context/idfw_vertical.rpc.h"
#include "proto/context/ids_pcap_vertical.rpc.h"
#include "proto/context/ids_vertical.rpc.h"
#include "proto/context/ouvi_vertical.rpc.h"
#include "proto/firewall/firewall_vertical.rpc.h"
#include "proto/healthcheck/healthcheck_vertical.rpc.h"
#include "proto/ida/ida_vertical.rpc.h"
#include "proto/livetrace/livetrace_vertical.rpc.h"
#include "proto/lldp/lldp_vertical.rpc.h"
#include "proto/messaging/l2_vertical.rpc.h"
#include "proto/monitoring/monitoring_vertical.rpc.h"
#include "proto/packetcapture/packetcapture_vertical.rpc.h"
#include "proto/support_bundle/support_bundle_vertical.rpc.h"
#include "proto/traceflow/traceflow_vertical.rpc.h"

namespace zem {

namespace config = orlane::zem::config;
namespace context = orlane::zem::context;
namespace firewall = orlane::zem::firewall;
namespace healthcheck = orlane::zem::healthcheck;
namespace ida = orlane::zem::ida;
namespace livetrace = orlane::zem::livetrace;
namespace lldp = orlane::zem::lldp;
namespace messaging = orlane::zem::messaging;
namespace monitoring = orlane::zem::monitoring;
namespace packetcapture = orlane::zem::packetcapture;
namespace support_bundle = orlane::zem::support_bundle;
namespace traceflow = orlane::zem::traceflow;

using PktcapHostService = HostServiceOf<packetcapture::PckCapHostService::Service>;
using TraceflowHostService = HostServiceOf<traceflow::TraceflowHostService::Service>;
using LldpHostService = HostServiceOf<lldp::LldpHostService::Service>;
using SupportBundleHostService = HostServiceOf<support_bundle::BundleHostService::Service>;
using IdaHostService = HostServiceOf<ida::IdaHostService::Service>;
using CtrlMgmtHostService = HostServiceOf<config::CtrlMgmtHostService::Service>;
using l2HostService = HostServiceOf<messaging::L2HostService::Service>;
using CollectorHostService = HostServiceOf<monitoring::CollectorHostService::Service>;
using LivetraceHostService = HostServiceOf<livetrace::LivetraceHostService::Service>;
using IdfwHostService = HostServiceOf<context::idfw::IdfwHostService::Service>;
using CtxHealthHostService = HostServiceOf<context::OuviHostService::Service>;
using HealthCheckHostService = HostServiceOf<healthcheck::HealthCheckHostService::Service>;

}  // namespace zem
