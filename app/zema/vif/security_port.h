#pragma once

#include <optional>
#include <string>

#include "framework/tasks/outcome.h"

namespace zem::zema {

struct PortLocation;
struct VifContext;
struct VifRequest;

/// Where the request's security-only port is, "<switch>:<port>"; a request of the host names the port alone
/// or both in one text.
std::string SecurityOriginOf(const VifRequest& request);

/// Where the request's security-only port is.  A resync knows it by its key alone, or not at all: then it is
/// the port that holds the VIF, or the only port of that key.  Nothing when that does not decide it.
std::optional<PortLocation> FindSecurityPort(VifContext& context, const VifRequest& request);

/// What ties a port to a VIF, for its security.
struct SecurityTie {
  std::string vif;
  std::string ls;
  std::string logical_port;
};

/// Ties the port: what another VIF has left on it goes first.  Up to three tries, a second apart.  Takes
/// the port lock for each step.
Outcome TieSecurityPort(VifContext& context, const PortLocation& at, const SecurityTie& tie);

/// Takes what ties the request's port to its VIF off it; nothing when another VIF has the port by now, or the
/// request names no port.  Under the port lock.
void UntieSecurityPort(VifContext& context, const VifRequest& request);

}  // namespace zem::zema
