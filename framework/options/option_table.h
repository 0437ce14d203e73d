#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "framework/options/option_row.h"

/// Every option of the daemon's file, its type, range and default: what the daemon reads and what checks a
/// file are this one table.
namespace zem::Tarvik {

inline constexpr OptionRow kOptionRows[] = {
    NumberOption("log.level", 0, 6, "5",
                 "the least severe line that is logged: 0 off, 1 fatal ... 5 debug, 6 trace"),
    NumberOption("log.metrics", 0, 6, "4", "the same for the metrics library"),
    NumberOption("log.net", 0, 6, "4", "the same for the network library"),
    NumberOption("log.rpc", 0, 6, "4", "the same for the RPC library"),
    NumberOption("log.sha", 0, 6, "4", "the same for the health client"),
    FlagOption("log.outputToConsole", false, "lines also go to the standard output"),
    NumberOption("tracing.trace_level", 0, 4, "2", "which workflow spans are kept: 0 none ... 4 all"),
    NumberOption("tracing.log_level", 0, 6, "4", "the log level of the workflow tracing"),
    FlagOption("app.healthcheck", true, "runs the check of VLANs and MTU"),
    FlagOption("app.ctxteng", true, "runs the context engine"),
    FlagOption("app.edgeids", false, "takes intrusion events on edge nodes"),
    FlagOption("app.zemda", true, "runs the discovery agent; never on an edge"),
    FlagOption("app.sampleClient", false, "runs the sample client"),
    FlagOption("app.traceflow", true, "runs the traces of injected packets"),
    FlagOption("app.pktcap", true, "runs packet captures"),
    FlagOption("app.lldp", true, "reports the neighbours of the host's interfaces"),
    FlagOption("app.alarmsprovider", true, "runs the alarms provider"),
    FlagOption("app.supportBundleClient", true, "collects support bundles for the manager"),
    FlagOption("app.zemaApp", true, "realizes the manager's configuration on this host"),
    FlagOption("app.edgesvc", true, "talks to the edge's service; only on edge nodes"),
    FlagOption("app.livetrace", true, "runs the traces of live traffic"),
    FlagOption("app.bmsconfigurator", true, "configures bare metal servers"),
    FlagOption("ovs.dpdk", false, "the virtual switch runs in user space"),
    FlagOption("ovs.dpdk_create_vif", false, "the agent creates the interfaces of that switch"),
    FlagOption("lacp.allowBalanceTCP", false, "bonds may balance by TCP ports"),
    TextOption("metrics.collector.file", "/var/run/orlane/zem-tarvik/metrics.json",
               "the libraries' metrics are written to it, while the file has a section metrics.collector"),
    NumberOption("metrics.collector.intervalSec", 1, 86'400, "60", "seconds between two writings"),
    TextOption("metrics.socket", "", "a unix socket that serves the metrics over HTTP; none while empty"),
};

using OptionKey = KeyOf<kOptionRows>;

}  // namespace zem::Tarvik
