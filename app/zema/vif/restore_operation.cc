#include "app/zema/vif/restore_operation.h"

#include "app/zema/ports/port_description.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/vif/security_port.h"
#include "app/zema/vif/vif_context.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "DoVifPortOperation";

constexpr const char* kSecurityOnly = "SECURITY_ONLY";
constexpr const char* kFailed = "FAILED";

Outcome Find(VifContext& context, const VifRequest& request, std::string* path, PortLocation* at) {
  const Synchronizer lock(context.port_lock, __FILE__, __LINE__);
  return context.ports.search().FindPortByVifUuid(request.vif_id, request.ls_id, path, at);
}

// Asks the host for the path of the VM's configuration file.
bool AskForPath(VifContext& context, VifRequest& request, const PortLocation& at) {
  const std::string query =
      "vifId=" + request.vif_id + "|portId=" + (at.port.empty() ? request.port_id : at.port);
  std::string reply;
  if (context.lum.InvokeRPC(LumOperation::kVmPathOfVif, query, &reply) != LumCommands::kRpcSucceeded) {
    ZLOG_ERROR("42076", "Failed to process GCF path query Data : %s, Return Data : %s", query.c_str(),
               reply.c_str());
    return false;
  }
  request.gcf_path = std::move(reply);
  ZLOG_INFO("[%s] GCF Path found: [%s]\n", kTag, request.gcf_path.c_str());
  return true;
}

bool RestorePort(VifContext& context, VifRequest& request) {
  PortLocation at;
  std::string path = request.gcf_path;
  Outcome found = Find(context, request, &path, &at);
  const bool had_path = !request.gcf_path.empty();
  const bool answered = AskForPath(context, request, at);
  if (!found && answered && !had_path) {
    // Only now can the files be looked at.
    path = request.gcf_path;
    found = Find(context, request, &path, &at);
  }
  request.error_text = found.error();
  return found.done();
}

bool TieSecurityOnlyPort(VifContext& context, VifRequest& request) {
  const PortLocation at{request.security_switch_id, request.spec->port_id};
  const Outcome tied = TieSecurityPort(context, at, {request.vif_id, request.ls_id, request.port_id});
  request.error_text = tied.error();
  if (!tied) return false;
  ZLOG_INFO("[%s] Applied extra-config on security-only dvport [%s-%s]", kTag, at.dvs.c_str(),
            at.port.c_str());
  return true;
}

}  // namespace

std::optional<VifSender::RestoreResponse> RestoreVif(VifContext& context, VifRequest& request) {
  const auto host_id = context.host.id();
  if (!host_id) {
    ZLOG_ERROR("42076", "Ignored vif restore for the host is not setup for zem operation");
    return std::nullopt;
  }
  ZLOG_INFO("VifRestore operation initiated for vif: %s", request.vif_id.c_str());
  const bool security = request.spec && request.spec->init_state == kSecurityOnly;
  const bool done = security ? TieSecurityOnlyPort(context, request) : RestorePort(context, request);
  return VifSender::RestoreResponse{request.op_id,      request.vif_id,  request.ls_id,
                                    request.port_id,    *host_id,        done ? request.state_text : kFailed,
                                    request.error_text, request.gcf_path};
}

}  // namespace zem::zema
