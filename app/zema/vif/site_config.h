#pragma once

#include <list>
#include <optional>
#include <string>
#include <utility>

namespace zem::zema {

class PortAttached;
struct PortLocation;
struct VifContext;
struct VifRequest;

/// Reads the site configuration, which the host writes on a port about its VM, as pairs of name and value.
std::list<std::pair<std::string, std::string>> CollectSiteConfig(VifContext& context, const PortLocation& at);

/// When the manager waits for the port's site configuration, adds the VIF to the list of those to fetch.
void ProcessLogicalPortInitState(VifContext& context, const VifRequest& request, const PortAttached& reply);

/// Sends the site configuration of the request's port to the manager.
void UpdateSiteConfigurationOnPort(VifContext& context, VifRequest& request);

/// The site configuration of the port that the VIF had before, to be sent for the port that it has now.
struct PriorSiteConfig {
  std::string new_port;
  std::list<std::pair<std::string, std::string>> values;
};

/// Reads it when the manager waits for it, and deletes the previous port.  The caller holds the port lock.
std::optional<PriorSiteConfig> TakePriorPendingConf(VifContext& context, const VifRequest& request,
                                                    const PortAttached& reply);
/// Sends it.  The caller does not hold the port lock, because sending may wait for the manager.
void SendPriorPendingConf(VifContext& context, const VifRequest& request, PriorSiteConfig prior);

}  // namespace zem::zema
