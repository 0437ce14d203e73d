#pragma once

#include <optional>
#include <string>

#include "framework/tasks/outcome.h"

namespace zem::zema {

struct PortLocation;
struct VifContext;
struct VifRequest;

/// The location of the request's security-only port as "<switch>:<port>".  A request of the host names only
/// the port, or both in one text.
std::string SecurityOriginOf(const VifRequest& request);

/// Finds the request's security-only port.  A resync knows only the port's key, or nothing: then it is the
/// port that holds the VIF, or the only port with that key.  Returns nothing when neither decides it.
std::optional<PortLocation> FindSecurityPort(VifContext& context, const VifRequest& request);

/// The values that tie a port to a VIF for its security.
struct SecurityTie {
  std::string vif;
  std::string ls;
  std::string logical_port;
};

/// Ties the port to the VIF, after clearing what another VIF has left on it.  Makes up to three tries, a
/// second apart.  Takes the port lock for each step.
Outcome TieSecurityPort(VifContext& context, const PortLocation& at, const SecurityTie& tie);

/// Unties the request's port from its VIF.  Does nothing when another VIF has the port by now, or when the
/// request names no port.  The caller holds the port lock.
void UntieSecurityPort(VifContext& context, const VifRequest& request);

}  // namespace zem::zema
