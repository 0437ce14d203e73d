#include "app/zema/vif/precreated_ports.h"

#include <utility>

#include "app/zema/ports/vif_request.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "CorvdHandlerThread";

struct MergedField {
  const char* name;
  std::string VifRequest::*field;
};

constexpr MergedField kMergedFields[] = {
    {"gcfPath ", &VifRequest::gcf_path},
    {"logical-switch-id ", &VifRequest::ls_id},
    {"logical-port-id ", &VifRequest::port_id},
    {"transport-zone-id ", &VifRequest::zone_id},
};

bool Matches(const VifRequest& request, const VifRequest& entry) {
  const bool same_switch = request.ls_id == entry.ls_id;
  if ((request.op_code == VifRequest::kAttach || request.op_code == VifRequest::kAttachToVifUuid) &&
      entry.op_code == VifRequest::kAttachToVifUuid && same_switch) {
    return true;
  }
  return request.op_code == entry.op_code && (same_switch || request.ls_id.empty() || entry.ls_id.empty());
}

}  // namespace

void PrecreatedPorts::Set(std::shared_ptr<Map> ports) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  ports_ = std::move(ports);
}

void PrecreatedPorts::Merge(VifRequest& request) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  if (!ports_) return;
  const auto found = ports_->find(request.vif_id);
  if (found == ports_->end() || !Matches(request, *found->second)) return;
  VifRequest merged = *found->second;
  ports_->erase(found);
  const std::string entry = merged.ToString();
  ZLOG_INFO("[%s] Found DataOfLsPortCreatedinMpByUser {%s}", kTag, entry.c_str());
  std::string changed;
  for (const auto& [name, field] : kMergedFields) {
    const std::string& wanted = request.*field;
    if (wanted.empty() || wanted == merged.*field) continue;
    merged.*field = wanted;
    changed += name;
  }
  if (!changed.empty()) {
    ZLOG_INFO("[%s] precreated port for VIF %s will be updated with [%s] for {%s}", kTag,
              request.vif_id.c_str(), changed.c_str(), entry.c_str());
  }
  for (const auto& [name, field] : kMergedFields) request.*field = std::move(merged.*field);
  request.spec = std::move(merged.spec);
  request.precreated = merged.precreated;
}

}  // namespace zem::zema
