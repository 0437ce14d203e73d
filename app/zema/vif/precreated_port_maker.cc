#include "app/zema/vif/precreated_port_maker.h"

#include <utility>

#include "app/zema/manager/port_attached.h"
#include "app/zema/ports/port_description.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/vif/local_port.h"
#include "app/zema/vif/vif_context.h"
#include "framework/log/log.h"
#include "platform/core/clock.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kOk = "ok|";

}  // namespace

Outcome PrecreatedPortMaker::CreatePorts(PrecreatedPorts::Map& ports) {
  for (auto& [vif, request] : ports) {
    if (!request->spec) continue;
    if (const Outcome created = CreatePortForPrecreated(*request); !created) {
      return Outcome::Failed("Failed to create DV port " + request->spec->port_id + " with VIF " + vif +
                             ". " + created.error());
    }
    request->precreated = true;
  }
  return Outcome::Done();
}

Outcome PrecreatedPortMaker::CreatePortForPrecreated(VifRequest& request) {
  ResolveVm(request.vif_id, &request.gcf_path);
  // A migration file names the interface in place of the path.
  if (!request.gcf_path.starts_with('/') && request.gcf_path.find(':') != std::string::npos) {
    const std::string vnic = std::exchange(request.gcf_path, {});
    ResolveVm(vnic, &request.gcf_path);
  }
  const TimePoint begun = Clock::Process().Now();
  const PortAttached port = PortAttachedOf(*request.spec);
  const Synchronizer lock(context_.port_lock, __FILE__, __LINE__);
  Outcome cleared = context_.ports.changes().ClearVifFromPortOtherThan(port.port_id, request.vif_id);
  return cleared ? CreateLocalDvPort(context_, request, begun, port) : cleared;
}

// A VM's interface is "<VM's uuid>:<device>".
void PrecreatedPortMaker::ResolveVm(const std::string& vnic, std::string* gcf_path) {
  const size_t colon = vnic.find(':');
  if (colon == std::string::npos) return;
  std::string path = PathOfVm(vnic.substr(0, colon));
  if (!path.empty()) *gcf_path = std::move(path);
}

std::string PrecreatedPortMaker::PathOfVm(const std::string& uuid) {
  if (const auto known = paths_.find(uuid); known != paths_.end()) return known->second;
  std::string reply;
  if (context_.lum.InvokeCommand("getGcfPathOfVm(" + uuid + ")", "", &reply) != LumCommands::kSucceeded ||
      !reply.starts_with(kOk)) {
    ZLOG_ERROR("42001", "getGcfPathOfVm(%s): [%s]", uuid.c_str(), reply.c_str());
    return {};
  }
  ZLOG_INFO("getGcfPathOfVm(%s) reply: [%s]", uuid.c_str(), reply.c_str());
  return paths_[uuid] = reply.substr(std::string_view(kOk).size());
}

}  // namespace zem::zema
