#include "app/zema/ports/site_config_list.h"

#include "app/zema/ports/vif_request.h"
#include "app/zema/proxy/lum_commands.h"
#include "app/zema/proxy/lum_reply.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr size_t kSiteConfigTokens = 4;

}  // namespace

bool SiteConfigList::GetVifsForSiteConfig() {
  std::string reply;
  if (lum_.InvokeCommand("GetVifUuidsForFetchingSiteConfig()", "", &reply) != LumCommands::kSucceeded) {
    ZLOG_ERROR("44205", "[PortOp] GetVifUuidsForFetchingSiteConfig failed: [%s]", reply.c_str());
    return false;
  }
  if (reply.empty()) {
    ZLOG_INFO("[PortOp] No ports found with pending attachment state to process");
    return true;
  }
  for (const std::string_view entry : SplitTokens(reply, '|')) {
    const auto tokens = SplitTokens(entry, ':');
    if (tokens.size() != kSiteConfigTokens || tokens[0].empty()) continue;
    auto request = std::make_shared<VifRequest>();
    request->op_code = VifRequest::kFetchSiteConfig;
    request->vif_id = tokens[0];
    request->ls_id = tokens[1];
    request->port_id = tokens[2];
    request->zone_id = tokens[3];
    AddVifForSiteConfig(std::string(tokens[0]), std::move(request));
  }
  return true;
}

void SiteConfigList::AddVifForSiteConfig(const std::string& vif, std::shared_ptr<const VifRequest> request) {
  vifs_to_fetch_site_config_.Set(vif, std::move(request));
  ZLOG_INFO("[PortOp] Added VIF [%s] to the list to fetch site config", vif.c_str());
}

void SiteConfigList::RemoveVifForSiteConfig(const std::string& vif) {
  if (!vifs_to_fetch_site_config_.Remove(vif)) return;
  ZLOG_INFO("[PortOp] Removed VIF [%s] from the list to fetch site config", vif.c_str());
}

std::shared_ptr<const VifRequest> SiteConfigList::LookupVifRequest(const std::string& vif) const {
  const auto map = vifs_to_fetch_site_config_.Get();
  const auto found = map->find(vif);
  return found == map->end() ? nullptr : found->second;
}

std::shared_ptr<const std::map<std::string, std::shared_ptr<const VifRequest>>>
SiteConfigList::VifsForSiteConfig() const {
  return vifs_to_fetch_site_config_.Get();
}

}  // namespace zem::zema
