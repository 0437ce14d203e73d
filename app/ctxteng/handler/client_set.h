#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "app/ctxteng/base/engine_parts.h"
#include "app/ctxteng/base/ictxt_client.h"

namespace Ctxt {

/// The clients of the engine.  One that is null is never active, whatever the options say.
struct ClientSet {
  std::shared_ptr<ICtxtClient> sample;
  std::shared_ptr<ICtxtClient> idfw;
  std::shared_ptr<ICtxtClient> ids;
  std::shared_ptr<ICtxtClient> pace;
  /// Where the store's updates for identity firewall and intrusion detection go.
  std::shared_ptr<IStoreUpdates> idfw_updates;
  std::shared_ptr<IStoreUpdates> ids_updates;
  /// The identity firewall's list of system accounts.
  std::function<bool(const std::string& sid)> is_well_known_sid;
};

}  // namespace Ctxt
