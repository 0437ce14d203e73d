#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "app/zema/lswitch/logical_switch_context.h"

namespace zem::zema {

class PortOpsManager;
struct VifRequest;

/// Zones as the port manager has learned them from the host.
class PortZoneKinds final : public ZoneSwitchKinds {
 public:
  /// `ports` has to outlive it.
  explicit PortZoneKinds(PortOpsManager& ports) : ports_(ports) {}
  bool IsKln(const std::string& transport_zone_id) override;

 private:
  PortOpsManager& ports_;
};

/// VIFs whose site configuration the manager waits for, as the port manager keeps them.
class PortVifStates final : public VifStateRealizer {
 public:
  /// Takes a request to the host management handler.
  using Handle = std::function<void(std::shared_ptr<VifRequest>)>;

  /// `ports` has to outlive it; `handle` must not block.
  PortVifStates(PortOpsManager& ports, Handle handle) : ports_(ports), handle_(std::move(handle)) {}
  void RemoveVif(const std::string& vif_id) override;
  bool ProcessVif(const std::string& vif_id) override;

 private:
  PortOpsManager& ports_;
  const Handle handle_;
};

}  // namespace zem::zema
