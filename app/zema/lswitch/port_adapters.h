#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "app/zema/lswitch/logical_switch_context.h"

namespace zem::zema {

class SiteConfigList;
class TransportZones;
struct VifRequest;

/// The kinds of transport zones, as reported by the host.
class PortZoneKinds final : public ZoneSwitchKinds {
 public:
  /// `zones` has to outlive it.
  explicit PortZoneKinds(TransportZones& zones) : zones_(zones) {}
  bool IsKln(const std::string& transport_zone_id) override;

 private:
  TransportZones& zones_;
};

/// VIFs for whose site configuration the manager waits.
class PortVifStates final : public VifStateRealizer {
 public:
  /// Passes a request to the host management handler.
  using Handle = std::function<void(std::shared_ptr<VifRequest>)>;

  /// `waiting` has to outlive it; `handle` must not block.
  PortVifStates(SiteConfigList& waiting, Handle handle) : waiting_(waiting), handle_(std::move(handle)) {}
  void RemoveVif(const std::string& vif_id) override;
  bool ProcessVif(const std::string& vif_id) override;

 private:
  SiteConfigList& waiting_;
  const Handle handle_;
};

}  // namespace zem::zema
