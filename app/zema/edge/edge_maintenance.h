#pragma once

#include "app/zema/edge/edge_service.h"
#include "mpaclient/bus/raw_bus_message.h"

namespace orlane::zem::switching {
class MaintenanceModeConfigMsg;
}

namespace zem::zema {

class MpaMessageSender;

/// Maintenance mode on an edge, which the edge's own service carries out: requests the mode from the service
/// and reports the outcome to the manager.
///
/// Threads: any that may wait.
class EdgeMaintenance {
 public:
  /// `sender` has to outlive this object.
  EdgeMaintenance(EdgeService service, MpaMessageSender& sender)
      : service_(std::move(service)), sender_(sender) {}

  /// `message` holds a MaintenanceModeConfigMsg.
  void Apply(const RawBusMessage& message) const;

 private:
  void SendActionToEdgeService(const orlane::zem::switching::MaintenanceModeConfigMsg& config,
                               const RawBusMessage& origin) const;

  const EdgeService service_;
  MpaMessageSender& sender_;
};

}  // namespace zem::zema
