#pragma once

#include <optional>
#include <string>

#include "app/zema/manager/port_attached.h"
#include "app/zema/ports/port_location.h"
#include "app/zema/vif/site_config.h"
#include "platform/core/clock.h"

namespace zem {
class Thread;
}  // namespace zem

namespace zem::zema {

class PriorAttachments;
struct VifContext;
struct VifRequest;

/// One attach of a VIF: the manager is told, the port that it answers with is made, and the port that the VIF
/// had before is left.  When the manager cannot be reached the VIF gets the port back that it had.
///
/// Threads: the one that serves the request, which holds the monitor of `waiter`.
class AttachOperation {
 public:
  AttachOperation(VifContext& context, PriorAttachments& prior, VifRequest& request, Thread& waiter);

  /// The outcome is in the request.  `return_vif`: its result text takes the port's uuid.
  void DoMpVifAttachRpc(bool return_vif);

 private:
  void Attach(bool return_vif);
  void TellManager();
  std::string PortHint();
  bool LeavePriorPort();
  bool HandlePriorAttachedPort();
  void RollBack();
  bool TieSecurity();
  void ForgetPendingOperation();
  void MakePort(bool return_vif);
  void AfterManagerError(bool return_vif);

  VifContext& context_;
  PriorAttachments& prior_;
  VifRequest& request_;
  Thread& waiter_;
  const TimePoint begun_;
  PortAttached reply_;
  std::optional<PortLocation> security_port_;
  std::optional<PriorSiteConfig> prior_config_;
};

}  // namespace zem::zema
