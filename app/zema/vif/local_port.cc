#include "app/zema/vif/local_port.h"

#include "app/zema/manager/port_attached.h"
#include "app/zema/ports/port_description.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/vif/vif_context.h"
#include "framework/log/log.h"
#include "platform/wft/workflow_util.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kHostInterface = "knlnic";

const std::string& FirstSet(const std::string& one, const std::string& other) {
  return one.empty() ? other : one;
}

// Both kinds of description have the same field names.
template <class To, class From>
To SamePort(const From& from) {
  To port;
  port.port_id = from.port_id;
  port.zone_id = from.zone_id;
  port.switch_id = from.switch_id;
  port.extra_configs = from.extra_configs;
  port.init_state = from.init_state;
  port.vlan = from.vlan;
  port.vlan_ranges = from.vlan_ranges;
  port.uplink_teaming = from.uplink_teaming;
  port.org = from.org;
  port.project = from.project;
  port.vpc = from.vpc;
  return port;
}

}  // namespace

PortConfigSpec PortDescriptionOf(const PortAttached& reply) { return SamePort<PortConfigSpec>(reply); }

PortAttached PortAttachedOf(const PortConfigSpec& spec) { return SamePort<PortAttached>(spec); }

const std::string& VifOfPort(const VifRequest& request, const PortAttached& reply) {
  return FirstSet(FirstSet(reply.vif_id, request.vif_id), reply.port_id);
}

Outcome CreateLocalDvPort(VifContext& context, const VifRequest& request, TimePoint begun,
                          const PortAttached& reply) {
  const auto span = wft::WorkflowUtil::StartChildSpan("HandlerThread.CreateLocalDvPort", wft::kTraceInfo);
  wft::WorkflowUtil::SetCurSpanTag("gcfPath", request.gcf_path);
  PortConfigSpec spec = PortDescriptionOf(reply);
  if (spec.switch_id.empty()) spec.switch_id = request.ls_id;
  const std::string& vif = VifOfPort(request, reply);
  Outcome created =
      context.ports.creation().CreatePort(spec, vif, request.gcf_path, request.gcf_path != kHostInterface);
  if (!created) {
    ZLOG_ERROR("42001", "[%s] createPort(uuid=%s, zone=%s) failed: %s\n", __func__, spec.port_id.c_str(),
               spec.zone_id.c_str(), created.error().c_str());
    return created;
  }
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::Process().Now() - begun);
  ZLOG_INFO("[%s] created dvport [%s] on zone [%s] attached to vif [%s] in time :%llu\n", __func__,
            spec.port_id.c_str(), spec.zone_id.c_str(), vif.c_str(),
            static_cast<unsigned long long>(took.count()));
  return created;
}

}  // namespace zem::zema
