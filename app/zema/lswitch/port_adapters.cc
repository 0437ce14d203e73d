#include "app/zema/lswitch/port_adapters.h"

#include "app/zema/ports/site_config_list.h"
#include "app/zema/ports/transport_zones.h"
#include "app/zema/ports/vif_request.h"

namespace zem::zema {

bool PortZoneKinds::IsKln(const std::string& transport_zone_id) {
  return zones_.GetHostSwitchInfoForTz(transport_zone_id).kind == "KLN";
}

void PortVifStates::RemoveVif(const std::string& vif_id) { waiting_.RemoveVifForSiteConfig(vif_id); }

bool PortVifStates::ProcessVif(const std::string& vif_id) {
  const std::shared_ptr<const VifRequest> request = waiting_.LookupVifRequest(vif_id);
  if (request == nullptr) return false;
  // Passes a copy, so that the results of one try do not appear in the next.
  handle_(std::make_shared<VifRequest>(*request));
  return true;
}

}  // namespace zem::zema
