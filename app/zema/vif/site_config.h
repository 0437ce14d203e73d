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

/// What the host has written on a port about the VM, as the manager wants it: name and value of each.
std::list<std::pair<std::string, std::string>> CollectSiteConfig(VifContext& context, const PortLocation& at);

/// The manager waits for the port's site configuration: notes that it is to be fetched.
void ProcessLogicalPortInitState(VifContext& context, const VifRequest& request, const PortAttached& reply);

/// Sends the site configuration of the request's port to the manager.
void UpdateSiteConfigurationOnPort(VifContext& context, VifRequest& request);

/// What was written on the port that the VIF had before, for the port that it has now.
struct PriorSiteConfig {
  std::string new_port;
  std::list<std::pair<std::string, std::string>> values;
};

/// Takes it when the manager waits for it; the port before then goes.  Under the port lock.
std::optional<PriorSiteConfig> TakePriorPendingConf(VifContext& context, const VifRequest& request,
                                                    const PortAttached& reply);
/// Not under the port lock: the manager may be away.
void SendPriorPendingConf(VifContext& context, const VifRequest& request, PriorSiteConfig prior);

}  // namespace zem::zema
